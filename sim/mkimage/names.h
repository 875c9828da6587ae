// Words that generated content is named from, shared by the generators of
// every database so that the old and the current phone look alike.
#pragma once

namespace mkimage::names {

inline constexpr const char *kArtists[] = {"The Harbour Lights", "Mira Okafor", "Northern Atlas", "Lena Sommer",
                                           "Blue Orchard", "Kenji Arai", "Sable & Stone", "Orquesta del Sur",
                                           "Hollow Pines", "Ada Lindqvist", "Glass Parade", "Tomás Reyes"};
inline constexpr const char *kAlbums[] = {"Low Tide", "Paper Moons", "City of Lanterns", "Quiet Machines",
                                          "Salt and Ember", "Northbound", "The Long Evening", "Small Hours",
                                          "Weather Songs", "Copper Sky"};
inline constexpr const char *kGenres[] = {"Rock", "Jazz", "Electronic", "Folk", "Classical", "Pop", "Hip-Hop", "Ambient"};
inline constexpr const char *kWords[] = {"Morning", "River", "Glass", "Echo", "Harbour", "Satellite", "Winter", "Paper",
                                         "Signal", "Garden", "Lantern", "Orbit", "Silver", "Canyon", "Velvet", "Static"};

}  // namespace mkimage::names
