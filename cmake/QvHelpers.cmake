# qv_set_install_rpath(<target>)
# Gives an installed shared library or program a RUNPATH relative to where it is installed,
# so that the libraries of this project find each other in any prefix, also one moved after
# installing, without LD_LIBRARY_PATH:
#   libraries   $ORIGIN               (they are all installed together in the libdir)
#   programs    $ORIGIN/<bindir to libdir>, e.g. $ORIGIN/../lib, ../lib64 or
#               ../lib/x86_64-linux-gnu, whatever CMAKE_INSTALL_LIBDIR is
# Only installation rewrites the RUNPATH: binaries in the build tree keep the absolute
# build-tree RPATH that CMake gives them.
function(qv_set_install_rpath target)
  get_target_property(_type ${target} TYPE)
  if(_type STREQUAL "SHARED_LIBRARY")
    set(_rpath "$ORIGIN")
  elseif(_type STREQUAL "EXECUTABLE")
    if(IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
      # The two do not move together with the prefix, so no relative path between them holds.
      set(_rpath "${CMAKE_INSTALL_FULL_LIBDIR}")
    else()
      file(RELATIVE_PATH _rel "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
      set(_rpath "$ORIGIN/${_rel}")
    endif()
  else()
    message(FATAL_ERROR "qv_set_install_rpath: ${target} is a ${_type}, not a shared library or program")
  endif()
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${_rpath}")
endfunction()

# qv_install_program(<target>)
# Installs a program into the bindir with the RUNPATH that finds this project's libraries.
function(qv_install_program target)
  qv_set_install_rpath(${target})
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()

# qv_add_library(NAME <target> EXPORT_MACRO_HEADER <dir>)
# Shared library from <dir>/src/*.cpp with public headers in <dir>/include,
# installed and exported as QV::<target> through a find_package config, with the
# RUNPATH that finds the other libraries of this project next to it.
function(qv_add_library target dir)
  file(GLOB _srcs CONFIGURE_DEPENDS ${dir}/src/*.cpp)
  add_library(${target} SHARED ${_srcs})
  add_library(QV::${target} ALIAS ${target})
  target_include_directories(${target}
    PUBLIC $<BUILD_INTERFACE:${dir}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${dir}/src)
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  qv_set_install_rpath(${target})
  install(TARGETS ${target} EXPORT ${target}Targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY ${dir}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT ${target}Targets NAMESPACE QV:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
endfunction()

# qv_install_config(<target> <dependency lines...>)
# Writes <target>Config.cmake that finds the dependencies and includes the targets.
function(qv_install_config target deps)
  set(_cfg ${CMAKE_CURRENT_BINARY_DIR}/${target}Config.cmake)
  file(WRITE ${_cfg} "include(CMakeFindDependencyMacro)\n${deps}\ninclude(\${CMAKE_CURRENT_LIST_DIR}/${target}Targets.cmake)\n")
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${target}ConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
  install(FILES ${_cfg} ${CMAKE_CURRENT_BINARY_DIR}/${target}ConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
endfunction()

# qv_add_tests(<dir> [POSTGRES] <libs...>): one GoogleTest executable per <dir>/*_test.cpp.
# POSTGRES: the tests use the PostgreSQL server that the ctest fixture `postgres` starts in
# QV_TEST_PG_DIR (the environment variable of the same name tells them where).
function(qv_add_tests dir)
  if(NOT QV_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(_qv "POSTGRES" "" "" ${ARGN})
  # Labelled by the library folder, so a change to one library can run that library's tests.
  get_filename_component(_library ${dir} DIRECTORY)
  get_filename_component(_label ${_library} NAME)
  set(_properties TIMEOUT 120 LABELS ${_label})
  if(_qv_POSTGRES)
    list(APPEND _properties FIXTURES_REQUIRED postgres ENVIRONMENT QV_TEST_PG_DIR=${QV_TEST_PG_DIR})
  endif()
  file(GLOB _tests CONFIGURE_DEPENDS ${dir}/*_test.cpp)
  foreach(_t ${_tests})
    get_filename_component(_name ${_t} NAME_WE)
    add_executable(${_name} ${_t})
    target_link_libraries(${_name} PRIVATE ${_qv_UNPARSED_ARGUMENTS} GTest::gtest GTest::gmock
                                           GTest::gtest_main)
    gtest_discover_tests(${_name} DISCOVERY_TIMEOUT 60 PROPERTIES ${_properties})
  endforeach()
endfunction()
