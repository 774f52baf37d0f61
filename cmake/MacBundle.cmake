# What macOS expects of the bundle beyond its files: the property lists of both bundles and
# of the launchd jobs, the manual page, and the archive.

# info_plist(FOLDER NAME IDENTIFIER MORE): installs FOLDER/Info.plist. CMake escapes no XML.
function(info_plist folder name identifier more)
    set(file ${PROJECT_BINARY_DIR}/bundle/${name}/Info.plist)
    configure_file(${PROJECT_SOURCE_DIR}/bundle/Info.plist.in ${file} @ONLY)
    install(FILES ${file} DESTINATION ${folder} COMPONENT launcher)
endfunction()

# The product's application is built elsewhere and brings its own list; until it does, this
# one names no executable, for there is none.
info_plist(Orvane.app/Contents Orvane com.vaultory.orvane "")
info_plist(${CONTENTS} OrvaneService com.vaultory.orvane.service "
	<key>CFBundleExecutable</key>
	<string>OrvaneService</string>
	<key>LSBackgroundOnly</key>
	<true/>")

if(NOT identifier)
    set(identifier com.vaultory.orvane)
endif()

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

# The archive is of the installed bundle, and not of one installed anew: on macOS the bundle
# is signed in between.
set(CPACK_INSTALL_CMAKE_PROJECTS "")
set(CPACK_INSTALLED_DIRECTORIES "${PROJECT_BINARY_DIR}/Applications;.")
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
if(CMAKE_HOST_APPLE)
    set(CPACK_GENERATOR DragNDrop productbuild)
else()
    set(CPACK_GENERATOR TGZ)
endif()

# The installer package has the bundle beside the installation; the scripts do the rest.
install(DIRECTORY ${PROJECT_BINARY_DIR}/Applications/Orvane.app DESTINATION .
    COMPONENT package EXCLUDE_FROM_ALL USE_SOURCE_PERMISSIONS)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/installer_package.cmake)
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
