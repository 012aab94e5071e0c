# tunnel_component(NAME DIR [DEPS component...])
#   An OBJECT library NAME of DIR/**/*.cpp (without *Test.cpp; a folder may hold sub-folders by
#   idea). DEPS lists every component NAME needs, transitively: a component's test executable links
#   exactly these objects.
# tunnel_register_tests()
#   One GoogleTest executable NAME_tests per component that has *Test.cpp files; each test case is a
#   CTest test, so death tests and forking tests run isolated and in parallel.
# tunnel_shared_library(NAME "COMPONENTS" "LINKS")
#   A shared library made of the components' objects.

set_property(GLOBAL PROPERTY TUNNEL_COMPONENTS "")

function(tunnel_component name dir)
  cmake_parse_arguments(C "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${dir}/*.cpp)
  set(lib_sources "")
  set(test_sources "")
  foreach(s IN LISTS sources)
    if(s MATCHES "Test\\.cpp$")
      list(APPEND test_sources ${s})
    else()
      list(APPEND lib_sources ${s})
    endif()
  endforeach()
  if(NOT lib_sources)
    # A folder with headers only (or nothing yet) still yields an object library.
    set(empty ${CMAKE_BINARY_DIR}/empty/${name}.cpp)
    if(NOT EXISTS ${empty})
      file(WRITE ${empty} "// ${name} has no compiled sources yet\n")
    endif()
    set(lib_sources ${empty})
  endif()
  add_library(${name} OBJECT ${lib_sources})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/platform)
  target_link_libraries(${name} PUBLIC fmt::fmt Threads::Threads)
  foreach(d IN LISTS C_DEPS)
    target_link_libraries(${name} PUBLIC ${d})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY TUNNEL_COMPONENTS ${name})
  set_property(GLOBAL PROPERTY TUNNEL_${name}_DEPS "${C_DEPS}")
  set_property(GLOBAL PROPERTY TUNNEL_${name}_TESTS "${test_sources}")
  set_property(GLOBAL PROPERTY TUNNEL_${name}_DIR "${dir}")
endfunction()

# Objects of a component and of everything it needs, as a list of generator expressions.
function(tunnel_objects_of out)
  set(all "")
  foreach(c IN LISTS ARGN)
    get_property(deps GLOBAL PROPERTY TUNNEL_${c}_DEPS)
    list(APPEND all ${deps} ${c})
  endforeach()
  list(REMOVE_DUPLICATES all)
  set(objs "")
  foreach(c IN LISTS all)
    list(APPEND objs $<TARGET_OBJECTS:${c}>)
  endforeach()
  set(${out} "${objs}" PARENT_SCOPE)
endfunction()

function(tunnel_register_tests)
  get_property(components GLOBAL PROPERTY TUNNEL_COMPONENTS)
  foreach(name IN LISTS components)
    get_property(tests GLOBAL PROPERTY TUNNEL_${name}_TESTS)
    if(NOT tests OR name STREQUAL "testsupport")
      continue()
    endif()
    tunnel_objects_of(objs ${name} testsupport)
    add_executable(${name}_tests ${tests} ${objs})
    target_link_libraries(${name}_tests PRIVATE ${name} testsupport GTest::gtest GTest::gmock
                                                 GTest::gtest_main fmt::fmt Threads::Threads rt)
    target_compile_definitions(${name}_tests PRIVATE TUNNEL_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
                                                     TUNNEL_BINARY_DIR="${CMAKE_BINARY_DIR}")
    gtest_discover_tests(${name}_tests DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                         PROPERTIES TIMEOUT 600 LABELS ${name})
  endforeach()
endfunction()

function(tunnel_shared_library name components links)
  set(objs "")
  foreach(c IN LISTS components)
    list(APPEND objs $<TARGET_OBJECTS:${c}>)
  endforeach()
  add_library(${name} SHARED ${objs})
  target_link_libraries(${name} PUBLIC fmt::fmt Threads::Threads ${links})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>
                                            $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/platform>
                                            $<INSTALL_INTERFACE:include/tunnel>)
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()
