# The bundle's Java runtime: the modules the service needs, linked again when those, the options or
# the JDK changed, and at the end of an installation the CDS archive that makes its starts fast.

foreach(file bin/java bin/jlink bin/jdeps bin/jmod release)
    if(NOT EXISTS "${BUNDLE_JDK}/${file}")
        reject(BUNDLE_JDK "'${BUNDLE_JDK}' has no ${file}; name a JDK, 11 or later")
    endif()
endforeach()

# ask(VARIABLE RESULT COMMAND...): what the command prints; rejects the variable if it fails.
function(ask variable result)
    execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE said ERROR_VARIABLE errors RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        string(REGEX REPLACE "\n.*" "" errors "${errors}${said}")
        list(JOIN ARGN " " command)
        reject(${variable} "'${command}' fails: ${errors}; name one that works")
    endif()
    set(${result} "${said}" PARENT_SCOPE)
endfunction()

# as_modules_say(VARIABLE...): rewrites platforms to what a JDK's modules call them, macos-aarch64.
function(as_modules_say)
    foreach(variable IN LISTS ARGN)
        string(TOLOWER "${${variable}}" text)
        string(REPLACE "darwin-" "macos-" text "${text}")
        string(REPLACE "-arm64" "-aarch64" text "${text}")
        string(REPLACE "-x86_64" "-amd64" text "${text}")
        set(${variable} "${text}" PARENT_SCOPE)
    endforeach()
endfunction()

ask(BUNDLE_JDK jdk_modules "${BUNDLE_JDK}/bin/java" --list-modules)
string(REGEX REPLACE "@[^\n]*\n" ";" jdk_modules "${jdk_modules}")
if(BUNDLE_JMODS)
    need_directory(BUNDLE_JMODS java.base.jmod "; name the jmods directory of a JDK")
    set(source BUNDLE_JMODS)
    set(libjvm "${BUNDLE_JMODS}/java.base.jmod")
    ask(BUNDLE_JMODS described "${BUNDLE_JDK}/bin/jmod" describe "${libjvm}")
    string(REGEX REPLACE ".*\nplatform ([^\n]*)\n.*" "\\1" runtime_platform "${described}")
    file(GLOB jdk_modules RELATIVE "${BUNDLE_JMODS}" "${BUNDLE_JMODS}/*.jmod")
    list(TRANSFORM jdk_modules REPLACE "\\.jmod$" "")
else()
    set(source BUNDLE_JDK)
    set(libjvm "${BUNDLE_JDK}/lib/server/libjvm.dylib")
    file(STRINGS "${BUNDLE_JDK}/release" release REGEX "^OS_(NAME|ARCH)=")
    list(SORT release ORDER DESCENDING) # OS_NAME, OS_ARCH
    string(REGEX REPLACE "OS_NAME=\"(.*)\";OS_ARCH=\"(.*)\"" "\\1-\\2" runtime_platform "${release}")
endif()

# The executable's platforms: of a universal one, two.
set(platforms ${CMAKE_OSX_ARCHITECTURES})
if(MACOS_OTHER_SLICE)
    set(platforms arm64 x86_64)
elseif(NOT platforms)
    set(platforms ${CMAKE_SYSTEM_PROCESSOR})
endif()
list(TRANSFORM platforms PREPEND "${CMAKE_SYSTEM_NAME}-")
set(host_platform ${CMAKE_HOST_SYSTEM_NAME}-${CMAKE_HOST_SYSTEM_PROCESSOR})
as_modules_say(platforms runtime_platform host_platform)
if(NOT runtime_platform IN_LIST platforms)
    reject(${source} "'${${source}}' is for ${runtime_platform}, the executable for ${platforms}; name the jmods directory of a JDK for that in BUNDLE_JMODS")
endif()
if(runtime_platform MATCHES "^macos-")
    ask(${source} runs_on ${jars_py} minimum-system "${libjvm}")
    string(STRIP "${runs_on}" runs_on)
    if(runs_on VERSION_GREATER minimum_system)
        set(minimum_system ${runs_on})
    endif()
endif()

foreach(module IN LISTS BUNDLE_MODULES)
    if(NOT module IN_LIST jdk_modules)
        reject(BUNDLE_MODULES "'${module}' is not a module of ${${source}}; '${BUNDLE_JDK}/bin/java --list-modules' prints them")
    endif()
endforeach()
if(NOT BUNDLE_TRAINING_SECONDS MATCHES "^[1-9][0-9]*$")
    reject(BUNDLE_TRAINING_SECONDS
        "'${BUNDLE_TRAINING_SECONDS}' is not a time; give a whole number of seconds above 0")
endif()

set(options --strip-debug --no-header-files --no-man-pages)
if(BUNDLE_JMODS)
    list(APPEND options --module-path "${BUNDLE_JMODS}")
endif()
if(BUNDLE_VM_OPTIONS)
    ask(BUNDLE_JDK plugins "${BUNDLE_JDK}/bin/jlink" --list-plugins)
    if(NOT plugins MATCHES "--add-options")
        reject(BUNDLE_VM_OPTIONS "the jlink of '${BUNDLE_JDK}' cannot store options; name a JDK, 17 or later, in BUNDLE_JDK")
    endif()
    separate_arguments(vm_options UNIX_COMMAND "${BUNDLE_VM_OPTIONS}")
    ask(BUNDLE_VM_OPTIONS said "${BUNDLE_JDK}/bin/java" ${vm_options} -version)
    list(APPEND options "--add-options=${BUNDLE_VM_OPTIONS}")
endif()

# What services need though no class file of theirs refers to it, where the JDK has it:
set(modules ${BUNDLE_MODULES})
foreach(module
        jdk.crypto.ec    # TLS over elliptic curves: a provider, found by its name
        jdk.unsupported) # sun.misc.Unsafe, which libraries reach by reflection
    if(module IN_LIST jdk_modules)
        list(APPEND modules ${module})
    endif()
endforeach()

set(runtime ${PROJECT_BINARY_DIR}/jre)
set(source_path "${${source}}")
configure_file(cmake/link_runtime.cmake.in ${PROJECT_BINARY_DIR}/link_runtime.cmake @ONLY)
add_custom_command(OUTPUT ${runtime}.modules
    COMMAND ${CMAKE_COMMAND} -P ${PROJECT_BINARY_DIR}/link_runtime.cmake
    DEPENDS ${jars}.stamp "${BUNDLE_JDK}/release" ${PROJECT_BINARY_DIR}/link_runtime.cmake
    COMMENT "Looking up the modules the service needs" VERBATIM)
add_custom_target(runtime ALL DEPENDS ${runtime}.modules)
add_dependencies(runtime jars)

# Another runtime than the one installed replaces it whole: the two are not mixed.
install(CODE "set(built \"${runtime}\")" COMPONENT runtime)
install(CODE [[
    execute_process(RESULT_VARIABLE differs OUTPUT_QUIET ERROR_QUIET COMMAND ${CMAKE_COMMAND}
        -E compare_files "${built}/lib/modules" "${contents}/Resources/jre/lib/modules")
    if(differs)
        file(REMOVE_RECURSE "${contents}/Resources/jre")
    endif()]] COMPONENT runtime)
install(DIRECTORY ${runtime} DESTINATION ${resources} COMPONENT runtime USE_SOURCE_PERMISSIONS)

if(BUNDLE_CDS_ARCHIVE AND NOT runtime_platform STREQUAL host_platform)
    install(CODE [[message(STATUS "The runtime is not for this machine: call "
        "operator/update-cds-archive on a Mac, before signing")]] COMPONENT cds-archive)
elseif(BUNDLE_CDS_ARCHIVE)
    # Last of all; again where the VM would reject what is there, or the training was changed,
    # and whenever this component is installed by itself.
    set(training_arguments "")
    foreach(argument IN LISTS BUNDLE_TRAINING_ARGUMENTS)
        string(APPEND training_arguments " [==[${argument}]==]")
    endforeach()
    configure_file(cmake/install_cds_archive.cmake.in ${PROJECT_BINARY_DIR}/install_cds_archive.cmake
        @ONLY)
    install(SCRIPT ${PROJECT_BINARY_DIR}/install_cds_archive.cmake COMPONENT cds-archive)
endif()
