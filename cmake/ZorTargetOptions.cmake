# Warnings and sanitizers, applied target by target (never globally).
function(zor_target_options target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wpedantic)
  if(ZOR_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(ZOR_SANITIZE STREQUAL "address")
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined,float-cast-overflow -fno-omit-frame-pointer -fno-sanitize-recover=undefined,float-cast-overflow)
    target_link_options(${target} PUBLIC -fsanitize=address,undefined,float-cast-overflow)
  elseif(ZOR_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=thread)
  elseif(NOT ZOR_SANITIZE STREQUAL "")
    message(FATAL_ERROR "ZOR_SANITIZE must be empty, address or thread, not '${ZOR_SANITIZE}'")
  endif()
endfunction()

# A shared library of the package: its alias ZorStlRegistration::<name>, the project's
# options, the export macro defined while it builds (`building`), includes from the
# repository root (installed under include/), and its install into the export set: the
# library itself is the `runtime` component, its unversioned link name the `dev` one.
# The ABI may change with every minor version while the major one is 0.
function(zor_add_library name building)
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                           SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  add_library(ZorStlRegistration::${name} ALIAS ${name})
  zor_target_options(${name})
  target_compile_definitions(${name} PRIVATE ${building})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  install(TARGETS ${name} EXPORT ZorStlRegistrationTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endfunction()
