package velmar.qen.mgmt.registry;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.net.URI;
import java.net.http.HttpClient;
import java.net.http.HttpRequest;
import java.net.http.HttpResponse;
import java.nio.charset.StandardCharsets;
import java.util.Base64;
import java.util.regex.MatchResult;
import java.util.regex.Pattern;
import velmar.qen.mgmt.nativesystem.Configuration;

/** A registry on etcd, which is changed directly, through the JSON form of etcd's requests. */
final class TroubledCluster implements TroubledStorage {
    private static final Pattern ENTRY = Pattern.compile("\"key\":\"([^\"]*)\"[^}]*\"value\":\"([^\"]*)\"");
    private static final Pattern MEMBER = Pattern.compile("\"member_id\":\"(\\d+)\"");

    private final HttpClient client = HttpClient.newHttpClient();
    private final URI member = URI.create(Configuration.locations().get(0).replaceFirst("^etcd:", "http:"));
    private final String prefix = Configuration.setting("prefix");
    private String alarm;

    private static String encoded(String bytes) {
        return Base64.getEncoder().encodeToString(bytes.getBytes(StandardCharsets.ISO_8859_1));
    }

    private static String decoded(String base64) {
        return new String(Base64.getDecoder().decode(base64), StandardCharsets.ISO_8859_1);
    }

    /** Makes a request, whose body has single quotes for readability, and returns the response. */
    private String request(String operation, String body) throws IOException {
        HttpRequest request = HttpRequest.newBuilder(member.resolve("/v3/" + operation))
                .POST(HttpRequest.BodyPublishers.ofString(body.replace('\'', '"'))).build();
        try {
            HttpResponse<String> response = client.send(request, HttpResponse.BodyHandlers.ofString());
            assertEquals(200, response.statusCode(), response::body);
            return response.body();
        } catch (InterruptedException e) {
            throw new IOException(e);
        }
    }

    /** Returns all entries of the registry. */
    private String entries() throws IOException {
        String end = prefix.substring(0, prefix.length() - 1) + (char) ('/' + 1);
        return request("kv/range", "{'key':'" + encoded(prefix) + "','range_end':'" + encoded(end) + "'}");
    }

    @Override
    public void damage(String text) throws IOException {
        int places = 0;
        for (MatchResult entry : ENTRY.matcher(entries()).results().toList()) {
            String value = decoded(entry.group(2));
            if (value.contains(text)) {
                String damaged = value.replace(text, "A" + text.substring(1));
                request("kv/put", "{'key':'" + entry.group(1) + "','value':'" + encoded(damaged) + "'}");
                places++;
            }
        }
        assertTrue(places > 0, "the text is in an entry");
    }

    /** Raises the alarm that etcd raises when it runs out of space. */
    @Override
    public void runShort() throws IOException {
        MatchResult header = MEMBER.matcher(entries()).results().findFirst().orElseThrow();
        alarm = "'memberID':'" + header.group(1) + "','alarm':'NOSPACE'}";
        request("maintenance/alarm", "{'action':'ACTIVATE'," + alarm);
    }

    @Override
    public void makeRoom() throws IOException {
        if (alarm != null) {
            request("maintenance/alarm", "{'action':'DEACTIVATE'," + alarm);
            alarm = null;
        }
    }

    @Override
    public void close() throws IOException {
        makeRoom();
    }
}
