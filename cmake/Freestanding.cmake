# Freestanding C++: no exceptions, no RTTI, no standard library, no global
# constructors, memory only from the boot-services pool.
set(TOLVANE_FREESTANDING_FLAGS
    -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-stack-protector
    -fno-asynchronous-unwind-tables -nostdinc++ -fPIC)

# The per-image runtime, compiled once and linked into every image.
function(tolvane_freestanding_target target)
  target_compile_options(${target} PRIVATE ${TOLVANE_FREESTANDING_FLAGS} ${TOLVANE_WARNINGS})
  # GCC marks inline variables and statics of inline functions as unique
  # symbols, which the dynamic loader shares between every loaded copy and
  # which keep a module from ever being unloaded; each image load must get
  # its own.
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  target_include_directories(${target} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})
endfunction()

# tolvane_add_image(NAME SOURCES ... [LIBS ...]): a freestanding image as a
# self-contained shared object in ${TOLVANE_IMAGE_DIR}/NAME.so whose entry
# is EfiMain. It needs nothing from the C library; on the host each load
# gets its own copy of the image's globals.
function(tolvane_add_image name)
  cmake_parse_arguments(IMG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} SHARED ${IMG_SOURCES})
  tolvane_freestanding_target(${name})
  target_link_libraries(${name} PRIVATE ${IMG_LIBS} tvl_rt)
  set(link_flags -nostdlib -Wl,-Bsymbolic -Wl,-z,now)
  if(NOT TOLVANE_SANITIZE)
    # Sanitizer hooks come from the host process; without them nothing may
    # be left undefined.
    list(APPEND link_flags -Wl,--no-undefined)
  endif()
  target_link_options(${name} PRIVATE ${link_flags})
  target_link_libraries(${name} PRIVATE gcc)
  set_target_properties(${name} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY ${TOLVANE_IMAGE_DIR})
  set_property(GLOBAL APPEND PROPERTY TOLVANE_IMAGES ${name})
  # Generated sources come with their full path.
  set(abs_sources)
  foreach(src ${IMG_SOURCES})
    if(IS_ABSOLUTE ${src})
      list(APPEND abs_sources ${src})
    else()
      list(APPEND abs_sources ${CMAKE_CURRENT_SOURCE_DIR}/${src})
    endif()
  endforeach()
  set_property(GLOBAL PROPERTY TOLVANE_IMAGE_SOURCES_${name} ${abs_sources})
  set_property(GLOBAL PROPERTY TOLVANE_IMAGE_LIBS_${name} ${IMG_LIBS})
endfunction()

# tolvane_add_freestanding_library(NAME SOURCES ...): code shared by images.
function(tolvane_add_freestanding_library name)
  add_library(${name} STATIC ${ARGN})
  tolvane_freestanding_target(${name})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/ OUTPUT_VARIABLE abs_sources)
  set_property(GLOBAL PROPERTY TOLVANE_LIBRARY_SOURCES_${name} ${abs_sources})
  set_property(GLOBAL PROPERTY TOLVANE_LIBRARY_DIR_${name} ${CMAKE_CURRENT_SOURCE_DIR})
endfunction()
