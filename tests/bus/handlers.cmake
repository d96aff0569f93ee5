# The capture-to-handler tests drive the sound folder's protocol handlers; they depend
# only on core and platform, so the unit is compiled in rather than the whole engine.
target_sources(test_bus PRIVATE ${PROJECT_SOURCE_DIR}/src/sound/protocol_handlers.cpp)
