package velmar.qen.mgmt.registry;

import java.util.ArrayList;
import java.util.List;

/** What an open registry knows of itself. */
record Description(String user, String group, String backupLocation, boolean inCluster, Locations locations) {
    static Description read(DataReader from) {
        String user = from.text();
        String group = from.text();
        String backupLocation = from.text();
        boolean inCluster = from.flag();
        boolean shared = from.flag();
        List<String> places = new ArrayList<>();
        for (int count = from.word32(); count > 0; count--) {
            places.add(from.text());
        }
        return new Description(user, group, backupLocation, inCluster, new Locations(places, shared));
    }
}
