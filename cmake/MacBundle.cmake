# What macOS expects of the bundle beyond its files: the property lists of both bundles and
# of the launchd jobs, the manual page, and how it is packed.

# CMake escapes no XML.
string(REPLACE "&" "&amp;" copyright "${copyright}")
string(REPLACE "<" "&lt;" copyright "${copyright}")

# info_plist(DIRECTORY NAME IDENTIFIER MORE): installs DIRECTORY/Info.plist.
function(info_plist directory name identifier more)
    set(file ${PROJECT_BINARY_DIR}/bundle/${name}/Info.plist)
    configure_file(${PROJECT_SOURCE_DIR}/bundle/Info.plist.in ${file} @ONLY)
    install(FILES ${file} DESTINATION ${directory} COMPONENT launcher)
endfunction()

# The product's application is built elsewhere and brings its own list; until it does, this
# one names no executable, for there is none.
info_plist(Orvane.app/Contents Orvane ${identifier} "")
info_plist(${CONTENTS} OrvaneService ${identifier}.service "
	<key>CFBundleExecutable</key>
	<string>OrvaneService</string>
	<key>LSBackgroundOnly</key>
	<true/>")

# launchd_job(FILE LABEL HOME ARGUMENT): installs Resources/launchd/FILE.
function(launchd_job name label home argument)
    set(file ${PROJECT_BINARY_DIR}/bundle/launchd/${name})
    configure_file(${PROJECT_SOURCE_DIR}/bundle/launchd.plist.in ${file} @ONLY)
    install(FILES ${file} DESTINATION ${CONTENTS}/Resources/launchd COMPONENT launcher)
endfunction()

launchd_job(com.vaultory.service.plist com.vaultory.service "" "")
launchd_job(com.vaultory.service.agent.plist.in com.vaultory.service.agent @HOME@ "
		<string>-Duser.install=1</string>")
foreach(script install uninstall check-install update-cds-archive)
    install(PROGRAMS ${PROJECT_SOURCE_DIR}/operator/${script}
        DESTINATION ${CONTENTS}/Resources/operator COMPONENT launcher)
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/operator/job.sh
    DESTINATION ${CONTENTS}/Resources/operator COMPONENT launcher)

install(FILES ${PROJECT_SOURCE_DIR}/bundle/OrvaneService.8
    DESTINATION ${CONTENTS}/Resources/man/man8 COMPONENT launcher)

# The tarball or the disk image is of the installed bundle, and not of one installed again: on macOS
# the bundle is signed in between. pack.cmake looks at it first.
set(CPACK_INSTALL_CMAKE_PROJECTS "")
set(CPACK_PACKAGE_VERSION ${version})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
configure_file(cmake/pack.cmake.in ${PROJECT_BINARY_DIR}/pack.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/pack.cmake)
set(CPACK_APPLICATIONS ${PROJECT_BINARY_DIR}/Applications)
if(CMAKE_HOST_APPLE)
    set(CPACK_GENERATOR DragNDrop productbuild)
    set(CPACK_INSTALLED_DIRECTORIES "${CPACK_APPLICATIONS};.")
    set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
else()
    # CPack's own tarball, an empty one, is replaced: it would have the owner's name in it.
    set(CPACK_GENERATOR TGZ)
    set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/tarball.cmake)
endif()

# The installer package has the bundle beside the installation; the scripts do the rest.
install(DIRECTORY ${PROJECT_BINARY_DIR}/Applications/Orvane.app DESTINATION .
    COMPONENT package EXCLUDE_FROM_ALL USE_SOURCE_PERMISSIONS)
set(CPACK_COMPONENT_PROJECT "${PROJECT_BINARY_DIR};Orvane;package;/")
set(CPACK_PREFLIGHT_PACKAGE_SCRIPT ${PROJECT_SOURCE_DIR}/bundle/package/preinstall)
set(CPACK_POSTFLIGHT_PACKAGE_SCRIPT ${PROJECT_SOURCE_DIR}/bundle/package/postinstall)
set(CPACK_PRODUCTBUILD_IDENTIFIER ${identifier})
set(CPACK_PRODUCTBUILD_DOMAINS ON)       # the running system's volume alone
set(CPACK_PRODUCTBUILD_DOMAINS_ANYWHERE OFF)
set(CPACK_PRODUCTBUILD_DOMAINS_USER OFF)
set(CPACK_PRODUCTBUILD_DOMAINS_ROOT ON)
include(CPack)
cpack_add_component(package HIDDEN DISPLAY_NAME Orvane
    PLIST ${PROJECT_SOURCE_DIR}/bundle/package/component.plist)

# Last of all: whoever installs, and with whatever umask, everybody may read.
install(CODE [[execute_process(COMMAND chmod -R u=rwX,go=rX "${app}")]] ALL_COMPONENTS)
