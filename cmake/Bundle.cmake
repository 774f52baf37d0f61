# The bundle around the launcher: the service, its directories and the Java runtime. What a vendor
# puts in the sample's place is named by the variables below, checked here.
set(BUNDLE_JAR "" CACHE FILEPATH "The service's jar, with com/vaultory/service/QRService.class; empty for the sample")
set(BUNDLE_LIBRARIES "" CACHE STRING "Further jars the service needs, or directories of them")
set(BUNDLE_LANG "" CACHE PATH "The directory of the service's texts, second on its class path")
set(BUNDLE_CONF "" CACHE PATH "The directory of its default configuration, with service.log.xml; empty for the sample's")
set(BUNDLE_BIN "" CACHE PATH "The directory of the programs the service calls")
set(BUNDLE_FRAMEWORKS "" CACHE PATH "The directory of the service's native libraries")
set(BUNDLE_VERSION "" CACHE STRING "The product's version, such as 2.1.0; empty for the launcher's")
set(BUNDLE_COPYRIGHT "" CACHE STRING "The product's copyright, one line; empty for the sample's")
set(BUNDLE_IDENTIFIER "" CACHE STRING "The product's bundle identifier, such as com.example.backup; empty for the sample's")
option(BUNDLE_RUNTIME "Put a Java runtime into the bundle" ON)
set(BUNDLE_JDK "${JAVA_HOME}" CACHE PATH "The JDK, 11 or later, that the runtime is taken from")
set(BUNDLE_JMODS "" CACHE PATH "The jmods directory of a JDK of that version for the executable's platform")
set(BUNDLE_MODULES "" CACHE STRING "Modules of the runtime beyond those the jars refer to")
set(BUNDLE_VM_OPTIONS "" CACHE STRING "VM options stored in the runtime, separated by spaces")
option(BUNDLE_CDS_ARCHIVE "Run the service once when installing, to make every start faster" ON)
set(BUNDLE_TRAINING_ARGUMENTS "" CACHE STRING "Arguments of the launcher in that run")
set(BUNDLE_TRAINING_SECONDS 30 CACHE STRING "How long that run may take before SIGTERM ends it")

find_package(Python3 3.9 REQUIRED COMPONENTS Interpreter)
set(jars_py ${Python3_EXECUTABLE} -B ${PROJECT_SOURCE_DIR}/cmake/jars.py)

# reject(VARIABLE TEXT): ends the configuration with one line, not reflowed.
function(reject variable text)
    message(FATAL_ERROR " ${variable}: ${text}")
endfunction()

# need_directory(VARIABLE [FILE REMEDY]): the variable names a directory, and that has the file.
function(need_directory variable)
    if(NOT IS_DIRECTORY "${${variable}}")
        reject(${variable} "'${${variable}}' is not a directory; name the one to install")
    elseif(ARGC GREATER 1 AND NOT EXISTS "${${variable}}/${ARGV1}")
        reject(${variable} "'${${variable}}' has no ${ARGV1}${ARGV2}")
    endif()
endfunction()

# need_match(VARIABLE REGEX TEXT): the variable is empty or looks so.
function(need_match variable regex text)
    if(NOT "${${variable}}" MATCHES "^(${regex})?$")
        reject(${variable} "'${${variable}}' is not ${text}")
    endif()
endfunction()

if(DEFINED BUNDLE_ARCHIVE)
    reject(BUNDLE_ARCHIVE "is now called BUNDLE_JAR; set that instead")
endif()
foreach(variable BUNDLE_LANG BUNDLE_BIN BUNDLE_FRAMEWORKS)
    if(${variable})
        need_directory(${variable})
    endif()
endforeach()
if(BUNDLE_CONF)
    need_directory(BUNDLE_CONF service.log.xml ", which the launcher names; add it")
endif()
need_match(BUNDLE_VERSION "[0-9]+(\\.[0-9]+)?(\\.[0-9]+)?"
    "a version; give one to three numbers with dots between them")
need_match(BUNDLE_IDENTIFIER "[A-Za-z0-9-]+(\\.[A-Za-z0-9-]+)+"
    "a bundle identifier; give words of letters, digits and hyphens with dots between them")
need_match(BUNDLE_COPYRIGHT "[^\n\r\t]+" "one line; give one")

# What is not the vendor's is the sample's, and named; programs and texts it has none of.
set(version ${PROJECT_VERSION})
set(copyright "© Vaultory")
set(identifier com.vaultory.orvane)
foreach(part lang conf bin)
    set(${part} ${PROJECT_SOURCE_DIR}/service/${part})
endforeach()
foreach(part conf version copyright identifier lang bin)
    string(TOUPPER BUNDLE_${part} variable)
    if(${variable} OR (BUNDLE_JAR AND part MATCHES "lang|bin"))
        set(${part} "${${variable}}")
    elseif(BUNDLE_JAR)
        message(STATUS "${variable} is not set: the bundle gets the sample's, ${${part}}")
    endif()
endforeach()

set(libraries "")
foreach(path IN LISTS BUNDLE_LIBRARIES)
    file(REAL_PATH "${path}" path BASE_DIRECTORY ${CMAKE_SOURCE_DIR})
    if(IS_DIRECTORY "${path}")
        file(GLOB path CONFIGURE_DEPENDS "${path}/*.jar")
    endif()
    list(APPEND libraries ${path})
endforeach()
if(BUNDLE_LIBRARIES AND NOT libraries)
    reject(BUNDLE_LIBRARIES "'${BUNDLE_LIBRARIES}' has no jar in it; name jars, or directories of them")
endif()
if(BUNDLE_JAR)
    set(main_class com/vaultory/service/QRService.class)
    execute_process(COMMAND ${CMAKE_COMMAND} -E tar tf "${BUNDLE_JAR}" ${main_class}
        OUTPUT_VARIABLE found ERROR_QUIET)
    if(NOT found MATCHES "${main_class}")
        reject(BUNDLE_JAR "'${BUNDLE_JAR}' is not a jar with ${main_class}, which the launcher calls; name one")
    endif()
    set(jar "${BUNDLE_JAR}")
    execute_process(COMMAND ${jars_py} check "${jar}" ${libraries}
        ERROR_VARIABLE said RESULT_VARIABLE status ERROR_STRIP_TRAILING_WHITESPACE)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR " ${said}")
    endif()
elseif(libraries)
    reject(BUNDLE_LIBRARIES "the sample needs none; set BUNDLE_JAR to the service's jar as well")
else()
    add_subdirectory(${PROJECT_SOURCE_DIR}/service)
    get_target_property(jar service JAR_FILE)
endif()

# The jars as they are installed, each beside the others.
set(jars ${PROJECT_BINARY_DIR}/jars)
add_custom_command(OUTPUT ${jars}.stamp
    COMMAND ${jars_py} install ${jars} "${jar}" ${libraries}
    COMMAND ${CMAKE_COMMAND} -E touch ${jars}.stamp
    DEPENDS "${jar}" ${libraries} cmake/jars.py COMMENT "Copying the service's jars" VERBATIM)
add_custom_target(jars ALL DEPENDS ${jars}.stamp)
if(TARGET service)
    add_dependencies(jars service)
endif()

# What is installed over a signed bundle makes its signature invalid.
install(CODE "set(app \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/Orvane.app\")
set(contents \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CONTENTS}\")" ALL_COMPONENTS)
install(CODE [[
    foreach(signature "${app}/Contents/_CodeSignature" "${app}/Contents/CodeResources"
            "${contents}/_CodeSignature")
        if(EXISTS "${signature}")
            message(STATUS "No longer valid, removed: ${signature}; sign the bundle again")
            file(REMOVE_RECURSE "${signature}")
        endif()
    endforeach()]] ALL_COMPONENTS)

set(resources ${CONTENTS}/Resources)
install(DIRECTORY ${jars}/ DESTINATION ${resources}/lib COMPONENT service)
set(../Frameworks "${BUNDLE_FRAMEWORKS}")
foreach(part lang conf bin ../Frameworks)
    if(${part})
        string(APPEND ${part} /)
    endif()
    install(DIRECTORY ${${part}} DESTINATION ${resources}/${part} COMPONENT service
        USE_SOURCE_PERMISSIONS)
endforeach()

set(minimum_system ${CMAKE_OSX_DEPLOYMENT_TARGET})
if(BUNDLE_RUNTIME OR BUNDLE_JMODS)
    include(cmake/Runtime.cmake)
endif()
