# Read by cpack, once per generator. The installer package is made of the installed bundle too,
# by way of a component, for scripts and property lists go with components.
if(CPACK_GENERATOR STREQUAL productbuild)
    set(CPACK_INSTALLED_DIRECTORIES "")
    set(CPACK_INSTALL_CMAKE_PROJECTS "${CPACK_COMPONENT_PROJECT}")
    set(CPACK_COMPONENTS_ALL package)
    set(CPACK_PACKAGING_INSTALL_PREFIX "/Library/Application Support/Orvane.installing")
endif()
