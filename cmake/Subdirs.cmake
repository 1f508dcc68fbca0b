# Adds each listed subdirectory that has a CMakeLists.txt, so that areas can
# grow independently.
function(tolvane_add_subdirectories)
  foreach(dir ${ARGN})
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/CMakeLists.txt)
      add_subdirectory(${dir})
    endif()
  endforeach()
endfunction()
