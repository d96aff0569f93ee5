# The display font is generated at build time from a bitmap font of a Debian package
# (xfonts-base, installed by scripts/setup.sh): never a table copied into the tree.
find_file(KORVO_PANEL_FONT 5x8-ISO8859-1.pcf.gz PATHS /usr/share/fonts/X11/misc NO_DEFAULT_PATH)
if(NOT KORVO_PANEL_FONT)
  message(FATAL_ERROR "the display font 5x8-ISO8859-1.pcf.gz was not found: install xfonts-base (scripts/setup.sh)")
endif()
add_executable(korvo_fontgen ${PROJECT_SOURCE_DIR}/tools/fontgen.cpp)
target_link_libraries(korvo_fontgen PRIVATE korvo_base)
add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/panel_font.h
  COMMAND korvo_fontgen ${KORVO_PANEL_FONT} ${CMAKE_CURRENT_BINARY_DIR}/panel_font.h
  DEPENDS korvo_fontgen ${KORVO_PANEL_FONT}
  COMMENT "Generating the display font from ${KORVO_PANEL_FONT}"
  VERBATIM)
add_custom_target(korvo_panel_font DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/panel_font.h)
add_dependencies(korvo_panel korvo_panel_font)
