# The records hold decoded audio (Mix_Chunk); mapping files of scrambled sets are gzip.
target_link_libraries(korvo_soundsets PUBLIC PkgConfig::SDL2_MIXER PkgConfig::SDL2 PkgConfig::ZLIB)
