# bench_bus_to_sound measures the whole path into the mixer and so also needs the sound
# engine; the bench targets are created after this folder, hence the deferred link.
function(korvo_bus_link_bench_sound)
  if(TARGET bench_bus_to_sound AND TARGET korvo_sound)
    target_link_libraries(bench_bus_to_sound PRIVATE korvo_sound)
  endif()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL korvo_bus_link_bench_sound)
