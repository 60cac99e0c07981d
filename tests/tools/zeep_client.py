# zeep (with the WSDL below) calling examples/embedded_server on /soap: typed add, echo and a
# fault, from a client that writes no xsi:type. argv[1] is the SOAP endpoint. Prints "ok".
import sys, tempfile, os
import zeep
url = sys.argv[1]
wsdl = """<?xml version="1.0"?>
<definitions name="Examples" targetNamespace="urn:examples" xmlns:tns="urn:examples"
  xmlns:soap="http://schemas.xmlsoap.org/wsdl/soap/" xmlns:xsd="http://www.w3.org/2001/XMLSchema"
  xmlns="http://schemas.xmlsoap.org/wsdl/">
  <message name="addRequest"><part name="a" type="xsd:int"/><part name="b" type="xsd:int"/></message>
  <message name="addResponse"><part name="Result" type="xsd:int"/></message>
  <message name="echoRequest"><part name="value" type="xsd:string"/></message>
  <message name="echoResponse"><part name="Result" type="xsd:string"/></message>
  <portType name="ExamplesPort">
    <operation name="examples.add"><input message="tns:addRequest"/><output message="tns:addResponse"/></operation>
    <operation name="examples.echo"><input message="tns:echoRequest"/><output message="tns:echoResponse"/></operation>
  </portType>
  <binding name="ExamplesBinding" type="tns:ExamplesPort">
    <soap:binding style="rpc" transport="http://schemas.xmlsoap.org/soap/http"/>
    <operation name="examples.add"><soap:operation soapAction="urn:examples#add"/>
      <input><soap:body use="literal" namespace="urn:examples"/></input>
      <output><soap:body use="literal" namespace="urn:examples"/></output></operation>
    <operation name="examples.echo"><soap:operation soapAction="urn:examples#echo"/>
      <input><soap:body use="literal" namespace="urn:examples"/></input>
      <output><soap:body use="literal" namespace="urn:examples"/></output></operation>
  </binding>
  <service name="Examples"><port name="ExamplesPort" binding="tns:ExamplesBinding">
    <soap:address location="%s"/></port></service>
</definitions>
""" % url
with tempfile.NamedTemporaryFile("w", suffix=".wsdl", delete=False) as f:
    f.write(wsdl)
try:
    client = zeep.Client(f.name)
    assert client.service["examples.add"](2, 3) == 5
    assert client.service["examples.echo"]("caf\u00e9 <&>") == "caf\u00e9 <&>"
    try:
        client.service["examples.add"](2147483647, 1)
        sys.exit("no fault")
    except zeep.exceptions.Fault as fault:
        assert "does not fit in 32 bits" in fault.message, fault.message
finally:
    os.unlink(f.name)
print("ok")
