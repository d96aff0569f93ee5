# korvo_folder_library(<folder> <public links>...): every *.cpp / *.c of the calling
# folder becomes the static library korvo_<folder>; *.cmake fragments of the folder
# then add further dependencies or generated code.
function(korvo_folder_library folder)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.c)
  if(NOT sources)
    return()
  endif()
  add_library(korvo_${folder} STATIC ${sources})
  target_include_directories(korvo_${folder} PUBLIC ${PROJECT_SOURCE_DIR}/src ${CMAKE_CURRENT_BINARY_DIR})
  target_link_libraries(korvo_${folder} PUBLIC ${ARGN})
  file(GLOB fragments CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cmake)
  foreach(fragment ${fragments})
    include(${fragment})
  endforeach()
endfunction()

# korvo_folder_tests(<folder>): every *.cpp of the calling tests folder becomes the
# GoogleTest binary test_<folder>, linked to korvo_<folder>.
function(korvo_folder_tests folder)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources OR NOT TARGET korvo_${folder})
    return()
  endif()
  korvo_add_test(test_${folder} SOURCES ${sources} LIBS korvo_${folder})
  file(GLOB fragments CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cmake)
  foreach(fragment ${fragments})
    include(${fragment})
  endforeach()
endfunction()
