# The client library: libtov.so.1, libtov.a, headers, tov.pc and a CMake package.
#
# It lives in other people's programs, in C as well as in C++, so only the public calls may be seen
# of it: our `quit` or `rtrim` must not meet the host's. Both forms are made from the same objects,
# compiled with hidden visibility; client/tov_public_calls.txt is the one list of what either form
# shows. The objects use no exceptions and nothing of the C++ library that has code of its own, so a
# program in C needs no C++ runtime for them (a test looks).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(tov_calls_file ${PROJECT_SOURCE_DIR}/client/tov_public_calls.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${tov_calls_file})
file(STRINGS ${tov_calls_file} tov_calls)
list(JOIN tov_calls "$<SEMICOLON> " tov_calls_in_map)
set(tov_client_dir ${PROJECT_BINARY_DIR}/client)
file(GENERATE OUTPUT ${tov_client_dir}/libtov.map
     CONTENT "TOV_1 { global: ${tov_calls_in_map}$<SEMICOLON> local: *$<SEMICOLON> }$<SEMICOLON>\n")

add_library(tov_client_objects OBJECT
  util/tov_utils.cpp
  util/procfs.cpp
  log/tov_dbg.cpp
  alive/shared_memory.cpp
  alive/tov_sys_alive.cpp
  vsd/member.cpp
  client/tov_pidfile.cpp
  client/tov_rpc.cpp
  client/tov_rpc_cancel.cpp
  client/tov_rpc_connect.cpp
  client/tov_rpc_message.cpp
  client/tov_rpc_overdue.cpp
  client/tov_xtach.cpp
  client/tov_xtach_fd.cpp
  client/tov_xtach_file.cpp
  client/tov_xtach_thread.cpp)
target_include_directories(tov_client_objects PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_options(tov_client_objects PRIVATE
  -fvisibility=hidden -fvisibility-inlines-hidden -fno-exceptions -fno-rtti
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>) # objcopy cannot make unique symbols local
target_link_libraries(tov_client_objects PRIVATE tov_options)
# The daemon compiles the same files; one entry each is enough for the tools that read the list.
set_target_properties(tov_client_objects PROPERTIES EXPORT_COMPILE_COMMANDS OFF)

# ---- shared ----------------------------------------------------------------------------------

add_library(tov_shared SHARED $<TARGET_OBJECTS:tov_client_objects>)
set_target_properties(tov_shared PROPERTIES
  OUTPUT_NAME tov EXPORT_NAME tov LINKER_LANGUAGE CXX
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS ${tov_client_dir}/libtov.map)
target_link_options(tov_shared PRIVATE
  -Wl,--version-script=${tov_client_dir}/libtov.map
  -Wl,-Bsymbolic-functions # a host's function of the same name is not called in our place
  -Wl,--as-needed)
if(NOT TOV_SANITIZE) # a sanitizer's runtime comes with the program
  target_link_options(tov_shared PRIVATE -Wl,-z,defs)
endif()
target_link_libraries(tov_shared PRIVATE tov_options Threads::Threads)
target_include_directories(tov_shared INTERFACE
  $<BUILD_INTERFACE:${tov_client_dir}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

# ---- static ----------------------------------------------------------------------------------

# One relocatable object in which everything but the public calls was made local. Group sections
# (inline functions) are dissolved first, or a host's inline function of the same name would be
# taken in place of ours.
set(tov_archive ${PROJECT_BINARY_DIR}/libtov.a)
add_custom_command(OUTPUT ${tov_archive}
  COMMAND ${CMAKE_COMMAND} -E rm -f ${tov_archive}
  COMMAND ${CMAKE_LINKER} -r --force-group-allocation -o ${tov_client_dir}/tov_client.o
          $<TARGET_OBJECTS:tov_client_objects>
  COMMAND ${CMAKE_OBJCOPY} --localize-hidden --keep-global-symbols=${tov_calls_file}
          ${tov_client_dir}/tov_client.o
  COMMAND ${CMAKE_AR} rcs ${tov_archive} ${tov_client_dir}/tov_client.o
  DEPENDS $<TARGET_OBJECTS:tov_client_objects> ${tov_calls_file}
  COMMENT "Linking the client library into one object, libtov.a"
  COMMAND_EXPAND_LISTS VERBATIM)
add_custom_target(tov_archive ALL DEPENDS ${tov_archive})

add_library(tov_static STATIC IMPORTED GLOBAL)
set_target_properties(tov_static PROPERTIES
  IMPORTED_LOCATION ${tov_archive}
  INTERFACE_INCLUDE_DIRECTORIES ${tov_client_dir}/include
  INTERFACE_LINK_LIBRARIES "rt;Threads::Threads")
add_dependencies(tov_static tov_archive)

# ---- what is installed -----------------------------------------------------------------------

# Programs get the wire and the calls. The daemon's records are no part of it: their tov.h is not
# the tree's, which holds both.
set(tov_headers tov.h tov_wire.h tov_xtach.h)
list(TRANSFORM tov_headers PREPEND ${tov_client_dir}/include/tov/)
configure_file(cmake/tov.h.in ${tov_client_dir}/include/tov/tov.h COPYONLY)
configure_file(include/tov_wire.h ${tov_client_dir}/include/tov/tov_wire.h COPYONLY)
configure_file(include/tov_xtach.h ${tov_client_dir}/include/tov/tov_xtach.h COPYONLY)

# Programs ask the headers for the release, and the headers are written by hand.
file(STRINGS include/tov_wire.h tov_version_lines REGEX "^#define TOV_VERSION_")
list(TRANSFORM tov_version_lines REPLACE ".* " "")
list(JOIN tov_version_lines . tov_headers_version)
if(NOT tov_headers_version VERSION_EQUAL PROJECT_VERSION)
  message(FATAL_ERROR
    "include/tov_wire.h is of release ${tov_headers_version}, the project of ${PROJECT_VERSION}")
endif()

# The package file finds its prefix from its own place, so the tree can be installed anywhere.
file(RELATIVE_PATH tov_pc_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" tov_pc_prefix "${tov_pc_prefix}")
configure_file(cmake/tov.pc.in ${tov_client_dir}/tov.pc @ONLY)

set(tov_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tov)
configure_package_config_file(cmake/tovConfig.cmake.in ${tov_client_dir}/tovConfig.cmake
  INSTALL_DESTINATION ${tov_package_dir}
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${tov_client_dir}/tovConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)

install(TARGETS tov_shared EXPORT tovTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client NAMELINK_COMPONENT client)
install(FILES ${tov_archive} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client)
install(FILES ${tov_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tov COMPONENT client)
install(FILES ${tov_client_dir}/tov.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT client)
install(EXPORT tovTargets NAMESPACE tov:: DESTINATION ${tov_package_dir} COMPONENT client)
install(FILES ${tov_client_dir}/tovConfig.cmake ${tov_client_dir}/tovConfigVersion.cmake
  DESTINATION ${tov_package_dir} COMPONENT client)
install(FILES docs/clients.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT client)

# ---- examples --------------------------------------------------------------------------------

# Built so that they cannot rot; each shows one way of linking as well.
set(tov_examples
  "supervised_c\;c\;tov_shared"
  "supervised_cpp\;cpp\;tov_static"
  "watched_worker\;cpp\;tov_static")
foreach(example IN LISTS tov_examples)
  list(GET example 0 name)
  list(GET example 1 language)
  list(GET example 2 library)
  add_executable(example_${name} examples/${name}.${language})
  set_target_properties(example_${name} PROPERTIES
    OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/examples)
  target_link_libraries(example_${name} PRIVATE ${library} tov_options)
  install(FILES examples/${name}.${language} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
    COMPONENT client)
endforeach()
