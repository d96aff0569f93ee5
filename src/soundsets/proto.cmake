# The xsnd index messages: C code generated from Audio.proto by protoc-c at build time,
# plus the C libraries the container, stream and archive code call.
find_program(KORVO_PROTOC_C protoc-c REQUIRED)
set(KORVO_AUDIO_PROTO ${CMAKE_CURRENT_SOURCE_DIR}/Audio.proto)
add_custom_command(
  OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/Audio.pb-c.c ${CMAKE_CURRENT_BINARY_DIR}/Audio.pb-c.h
  COMMAND ${KORVO_PROTOC_C} --proto_path=${CMAKE_CURRENT_SOURCE_DIR} --c_out=${CMAKE_CURRENT_BINARY_DIR} ${KORVO_AUDIO_PROTO}
  DEPENDS ${KORVO_AUDIO_PROTO}
  COMMENT "protoc-c Audio.proto"
  VERBATIM)
target_sources(korvo_soundsets PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/Audio.pb-c.c)
# Generated code is not ours to warn about.
set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/Audio.pb-c.c PROPERTIES COMPILE_OPTIONS "-w")
target_link_libraries(korvo_soundsets PUBLIC PkgConfig::PROTOBUFC PkgConfig::ZLIB PkgConfig::LIBZIP PkgConfig::SDL2 PkgConfig::SDL2_MIXER)
