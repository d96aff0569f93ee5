# The operations tests sign firmware archives and build zip sets themselves.
target_link_libraries(test_web PRIVATE PkgConfig::SODIUM PkgConfig::LIBZIP)
