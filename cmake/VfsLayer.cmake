# vfs_layer(NAME SOURCES...): one layer of the library, compiled with the project's warnings and
# folded into the shared library `vfs`. Its public headers live in ./include.
option(VFS_WARNINGS_AS_ERRORS "Treat warnings as errors" ON)
set(VFS_WARNINGS -Wall -Wextra -Wpedantic)
if(VFS_WARNINGS_AS_ERRORS)
  list(APPEND VFS_WARNINGS -Werror -Wno-error=deprecated-declarations)
endif()
set(VFS_LAYERS "" CACHE INTERNAL "")

function(vfs_layer name)
  add_library(${name} OBJECT ${ARGN})
  set(include_dir ${CMAKE_CURRENT_SOURCE_DIR}/include)
  set_target_properties(${name} PROPERTIES VFS_INCLUDE_DIR ${include_dir})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${include_dir}>
                                     PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  target_compile_options(${name} PRIVATE ${VFS_WARNINGS})
  target_compile_definitions(${name} PRIVATE VFS_BUILDING_LIBRARY PUBLIC BOOST_LOG_DYN_LINK)
  target_link_libraries(${name} PUBLIC Boost::headers Boost::log Boost::date_time Threads::Threads
                                       ${VFS_LAYERS})
  set(VFS_LAYERS ${VFS_LAYERS} ${name} CACHE INTERNAL "")
endfunction()
