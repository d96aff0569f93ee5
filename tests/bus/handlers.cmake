# The capture-to-engine tests run the bus capture into the real sound engine (protocol
# handlers, request ring, mixer on SDL's disk driver).
if(TARGET korvo_sound)
  target_link_libraries(test_bus PRIVATE korvo_sound)
endif()
