package velmar.qen.mgmt.registry;

import java.util.List;

/**
 * Where the registry is stored.
 *
 * @param places directories or addresses, in the order of the configuration
 * @param shared whether several nodes share the registry
 */
public record Locations(List<String> places, boolean shared) {
    /**
     * Keeps an unmodifiable copy of the places.
     *
     * @param places directories or addresses, in the order of the configuration
     * @param shared whether several nodes share the registry
     */
    public Locations {
        places = List.copyOf(places);
    }
}
