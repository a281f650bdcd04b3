# Debian packages of the install components, made by `cpack -G DEB` in a build folder
# (configured with CMAKE_INSTALL_PREFIX=/usr, as a packager's build is):
#   libzorstlregistration<major.minor>  the shared libraries (component runtime)
#   libzorstlregistration-dev           headers, link names, the CMake package (dev)
#   zor-register                        the command-line tool (tool)
# dpkg-shlibdeps declares what each needs of Debian's own libraries (libtbb12 and the
# like); the packages' needs of each other come from the components' dependencies.
set(zor_abi ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(CPACK_PACKAGE_NAME zorstlregistration)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Rigid registration, multi-start ICP and morphing of triangle meshes")
set(CPACK_PACKAGE_CONTACT "ZorStlRegistration developers <zor@localhost>")
set(CPACK_PACKAGE_INSTALL_DIRECTORY ZorStlRegistration)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The tool and the -dev package name the libraries of the runtime package, which no
# installed package provides yet when dpkg-shlibdeps looks.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/zor ${PROJECT_BINARY_DIR}/zor/pair
    ${PROJECT_BINARY_DIR}/zor/files ${PROJECT_BINARY_DIR}/zor/model ${PROJECT_BINARY_DIR}/zor/spatial
    ${PROJECT_BINARY_DIR}/zor/services)

set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "shared libraries: the operators, the pair calls and the mesh files")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzorstlregistration${zor_abi})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_COMPONENT_DEV_DESCRIPTION "headers and CMake package (find_package(ZorStlRegistration))")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzorstlregistration-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)

set(CPACK_COMPONENT_TOOL_DESCRIPTION "zor-register, the command-line tool: align, icp, morph, inspect")
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME zor-register)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION science)

include(CPack)
