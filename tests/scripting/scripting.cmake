# The web command box is tested through the real HTTP service with libcurl.
target_link_libraries(test_scripting PRIVATE korvo_web PkgConfig::CURL)
