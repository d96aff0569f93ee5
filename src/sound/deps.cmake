# The engine plays through SDL2_mixer and lists devices and mixer controls through ALSA.
target_link_libraries(korvo_sound PUBLIC PkgConfig::SDL2_MIXER PkgConfig::SDL2 PkgConfig::ALSA)
