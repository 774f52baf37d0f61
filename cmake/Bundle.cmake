# The bundle around the launcher: the service, its folders and the Java runtime. What a vendor
# puts in the sample's place is named by the variables below, checked here.
set(BUNDLE_JAR "" CACHE FILEPATH
    "The service's archive, with com/vaultory/service/QRService.class; empty for the sample")
set(BUNDLE_LANG "${PROJECT_SOURCE_DIR}/service/lang" CACHE PATH
    "The folder of the service's texts, second on its class path")
set(BUNDLE_CONF "${PROJECT_SOURCE_DIR}/service/conf" CACHE PATH
    "The folder of the service's default configuration, with service.log.xml")
set(BUNDLE_BIN "${PROJECT_SOURCE_DIR}/service/bin" CACHE PATH
    "The folder of the programs the service calls")
set(BUNDLE_FRAMEWORKS "" CACHE PATH "The folder of the service's native libraries; empty for none")
option(BUNDLE_RUNTIME "Put a Java runtime into the bundle" ON)
set(BUNDLE_JDK "${JAVA_HOME}" CACHE PATH "The JDK, 11 or later, that the runtime is taken from")
set(BUNDLE_MODULES "" CACHE STRING "Modules of the runtime beyond those the archive refers to")
option(BUNDLE_CDS_ARCHIVE "Run the service once when installing, to make every start faster" ON)
set(BUNDLE_TRAINING_ARGUMENTS "" CACHE STRING "Arguments of the launcher in that run")
set(BUNDLE_TRAINING_SECONDS 30 CACHE STRING "How long that run may take before SIGTERM ends it")

# refuse(VARIABLE TEXT): ends the configuration with one line, not reflowed.
function(refuse variable text)
    message(FATAL_ERROR " ${variable}: ${text}")
endfunction()

# need_folder(VARIABLE [FILE]): the variable names a folder, and the folder holds the file.
function(need_folder variable)
    if(NOT IS_DIRECTORY "${${variable}}")
        refuse(${variable} "'${${variable}}' is not a folder; name the one to install")
    elseif(ARGC EQUAL 2 AND NOT EXISTS "${${variable}}/${ARGV1}")
        refuse(${variable} "'${${variable}}' holds no ${ARGV1}, which the launcher names; add it")
    endif()
endfunction()

if(DEFINED BUNDLE_ARCHIVE)
    refuse(BUNDLE_ARCHIVE "is now called BUNDLE_JAR; set that instead")
endif()
need_folder(BUNDLE_LANG)
need_folder(BUNDLE_CONF service.log.xml)
need_folder(BUNDLE_BIN)
if(BUNDLE_FRAMEWORKS)
    need_folder(BUNDLE_FRAMEWORKS)
endif()

if(BUNDLE_JAR)
    set(main_class com/vaultory/service/QRService.class)
    if(NOT EXISTS "${BUNDLE_JAR}" OR IS_DIRECTORY "${BUNDLE_JAR}")
        refuse(BUNDLE_JAR "'${BUNDLE_JAR}' is not a file; name the service's archive")
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -E tar tf "${BUNDLE_JAR}" ${main_class}
        OUTPUT_VARIABLE found ERROR_QUIET)
    if(NOT found MATCHES "${main_class}")
        refuse(BUNDLE_JAR
            "'${BUNDLE_JAR}' is no archive with ${main_class}, which the launcher calls")
    endif()
    set(archive "${BUNDLE_JAR}")
else()
    add_subdirectory(${PROJECT_SOURCE_DIR}/service)
    get_target_property(archive service JAR_FILE)
endif()

set(resources ${CONTENTS}/Resources)
install(FILES "${archive}" DESTINATION ${resources}/lib RENAME com.vaultory.desktop.jar
    COMPONENT service)
install(DIRECTORY "${BUNDLE_LANG}/" DESTINATION ${resources}/lang COMPONENT service)
install(DIRECTORY "${BUNDLE_CONF}/" DESTINATION ${resources}/conf COMPONENT service)
install(DIRECTORY "${BUNDLE_BIN}/" DESTINATION ${resources}/bin COMPONENT service
    USE_SOURCE_PERMISSIONS)
if(BUNDLE_FRAMEWORKS)
    install(DIRECTORY "${BUNDLE_FRAMEWORKS}/" DESTINATION ${CONTENTS}/Frameworks
        COMPONENT service USE_SOURCE_PERMISSIONS)
else()
    install(DIRECTORY DESTINATION ${CONTENTS}/Frameworks COMPONENT service)
endif()

if(BUNDLE_RUNTIME)
    include(cmake/Runtime.cmake)
endif()
