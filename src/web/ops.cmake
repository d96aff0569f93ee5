# The operations side of the web service: zip archives of uploads and updates, and the
# Ed25519 signature check of firmware updates (GLOBAL so the tests can sign with it).
if(NOT TARGET PkgConfig::SODIUM)
  pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET GLOBAL libsodium)
endif()
target_link_libraries(korvo_web PUBLIC PkgConfig::LIBZIP PkgConfig::SODIUM)
