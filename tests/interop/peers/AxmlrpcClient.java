// Java's aXMLRPC client: calls URL with every case of the interop table, one line per case.
// --ext turns on its nil, 8-byte integer and Apache-namespace flags. Run as a source file:
// java -cp axmlrpc.jar AxmlrpcClient.java URL [--ext]
import de.timroes.axmlrpc.XMLRPCClient;
import de.timroes.axmlrpc.XMLRPCServerException;
import java.net.URL;
import java.util.*;

public class AxmlrpcClient {
    public static void main(String[] args) throws Exception {
        boolean ext = Arrays.asList(args).contains("--ext");
        int flags = ext ? XMLRPCClient.FLAGS_NIL | XMLRPCClient.FLAGS_8BYTE_INT | XMLRPCClient.FLAGS_APACHE_WS
                        : XMLRPCClient.FLAGS_NONE;
        XMLRPCClient client = new XMLRPCClient(new URL(args[0]), flags);
        Calendar utc = Calendar.getInstance(TimeZone.getTimeZone("UTC"));
        utc.clear();
        utc.set(2024, Calendar.FEBRUARY, 29, 13, 45, 30);
        Date date = utc.getTime();
        byte[] bytes = "\u0000\u0001binary\u00ff".getBytes("ISO-8859-1");
        Map<String, Object> member = new HashMap<>();
        member.put("a", "");
        Object[][] cases = {
            {"add", "examples.add", new Object[] {2, 3}, 5},
            {"int", "examples.echo", new Object[] {42}, 42},
            {"negint", "examples.echo", new Object[] {-7}, -7},
            {"int64", "examples.echo", new Object[] {3000000000L}, 3000000000L},
            {"e", "examples.echo", new Object[] {2.718281828459045}, 2.718281828459045},
            {"tenth", "examples.echo", new Object[] {0.1}, 0.1},
            {"empty", "examples.echo", new Object[] {""}, ""},
            {"markup", "examples.echo", new Object[] {"a<b & c> \"q\" \u00e9\u20ac\u65e5\u672c"},
             "a<b & c> \"q\" \u00e9\u20ac\u65e5\u672c"},
            {"bool", "examples.echo", new Object[] {true}, true},
            {"date", "examples.echo", new Object[] {date}, date},
            {"base64", "examples.echo", new Object[] {bytes}, bytes},
            {"emptyarray", "examples.echo", new Object[] {new Object[0]}, new Object[0]},
            {"emptymember", "examples.echo", new Object[] {member}, member},
            {"nil", "examples.echo", new Object[] {null}, null},
            {"fault", "examples.fault", new Object[] {4, "Too <many>"}, null},
        };
        for (Object[] c : cases) {
            String name = (String) c[0];
            try {
                Object got = client.call((String) c[1], (Object[]) c[2]);
                boolean same = !name.equals("fault") && Objects.deepEquals(got, c[3]);
                System.out.println(name + (same ? " ok" : " fail got " + show(got)));
            } catch (XMLRPCServerException f) {
                boolean ok = name.equals("fault") && f.getErrorNr() == 4 && f.getMessage().startsWith("Too <many>");
                System.out.println(name + (ok ? " ok" : " fail fault " + f.getErrorNr() + " " + f.getMessage()));
            } catch (Exception e) {
                System.out.println(name + " fail " + String.valueOf(e).replaceAll("\\s+", " "));
            }
        }
    }

    static String show(Object v) {
        if (v instanceof Object[]) return Arrays.deepToString((Object[]) v);
        if (v instanceof byte[]) return Arrays.toString((byte[]) v);
        if (v instanceof Date) return ((Date) v).toInstant().toString();
        return v == null ? "null" : v.getClass().getSimpleName() + "(" + v + ")";
    }
}
