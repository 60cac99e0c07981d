// serialization_override.cpp: sending a kind of value the protocols do not know, through the C++
// layer.
//
//   serialization_override_cpp [URL]     (default http://127.0.0.1:8080/RPC2, an hvserve)
//
// URLs are no XML-RPC type; left alone, the writer puts a comment and the URL's description in
// the document. An override registered on the client for the URL type writes them as strings:
// its text goes into the document verbatim, so it escapes the XML specials itself. The program
// sends a URL to examples.echo and prints the request it sent and what came back.
#include <HalvosCore/HalvosCore.hpp>

#include <iostream>
#include <optional>
#include <string>

// The text with <, & and > escaped.
static std::string escaped(const std::string &text) {
    std::string out;
    for (char c : text)
        out += c == '<' ? "&lt;" : c == '&' ? "&amp;" : c == '>' ? "&gt;" : std::string(1, c);
    return out;
}

int main(int argc, char **argv) try {
    hv::Client client{argc > 1 ? argv[1] : "http://127.0.0.1:8080/RPC2"};
    client.addSerializationOverride(RtURLGetTypeID(), [](const hv::Value &url) -> std::optional<std::string> {
        auto text = hv::Value::retain(RtURLGetString(static_cast<RtURLRef>(url.get()))).as<std::string>();
        return "<string>" + escaped(text) + "</string>"; // XML-RPC: everything inside <value>
    });

    hv::Value text = "http://example.com/a?b=1&c=2";
    hv::Value link =
        hv::Value::adopt(RtURLCreateWithString(nullptr, static_cast<RtStringRef>(text.get()), nullptr));
    auto answer = client.call<std::string>("examples.echo", link);
    std::cout << client.lastRecord().requestBody() << "\n";
    std::cout << "examples.echo returned: " << answer << "\n";
    return 0;
} catch (const hv::Error &error) {
    std::cerr << error.what() << "\n";
    return 1;
}
