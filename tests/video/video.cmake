# The test's MPRIS player talks D-Bus itself.
target_link_libraries(test_video PRIVATE PkgConfig::DBUS)
