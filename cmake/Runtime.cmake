# The bundle's Java runtime: the modules the service needs, linked anew when those or the JDK
# changed, and at the end of an installation the class data that makes its starts fast.

foreach(tool java jlink jdeps)
    if(NOT EXISTS "${BUNDLE_JDK}/bin/${tool}")
        refuse(BUNDLE_JDK "'${BUNDLE_JDK}' has no bin/${tool}; name a JDK, 11 or later")
    endif()
endforeach()
execute_process(COMMAND "${BUNDLE_JDK}/bin/java" --list-modules
    OUTPUT_VARIABLE jdk_modules COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "@[^\n]*\n" ";" jdk_modules "${jdk_modules}")
foreach(module IN LISTS BUNDLE_MODULES)
    if(NOT module IN_LIST jdk_modules)
        refuse(BUNDLE_MODULES
            "'${module}' is no module of ${BUNDLE_JDK}; its bin/java --list-modules names them")
    endif()
endforeach()
if(NOT BUNDLE_TRAINING_SECONDS MATCHES "^[1-9][0-9]*$")
    refuse(BUNDLE_TRAINING_SECONDS
        "'${BUNDLE_TRAINING_SECONDS}' is not a time; give a whole number of seconds above 0")
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
configure_file(cmake/link_runtime.cmake.in ${PROJECT_BINARY_DIR}/link_runtime.cmake @ONLY)
add_custom_command(OUTPUT ${runtime}.modules
    COMMAND ${CMAKE_COMMAND} -P ${PROJECT_BINARY_DIR}/link_runtime.cmake
    DEPENDS "${archive}" "${BUNDLE_JDK}/release" ${PROJECT_BINARY_DIR}/link_runtime.cmake
    COMMENT "Looking up the modules the service needs" VERBATIM)
add_custom_target(runtime ALL DEPENDS ${runtime}.modules)
if(TARGET service)
    add_dependencies(runtime service)
endif()

# Another runtime than the one installed replaces it whole: the two are not mixed.
install(CODE "set(built \"${runtime}\")" COMPONENT runtime)
install(CODE "set(installed \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${resources}/jre\")"
    COMPONENT runtime)
install(CODE [[
    execute_process(RESULT_VARIABLE differs OUTPUT_QUIET ERROR_QUIET COMMAND ${CMAKE_COMMAND}
        -E compare_files "${built}/lib/modules" "${installed}/lib/modules")
    if(differs)
        file(REMOVE_RECURSE "${installed}")
    endif()]] COMPONENT runtime)
install(DIRECTORY ${runtime} DESTINATION ${resources} COMPONENT runtime USE_SOURCE_PERMISSIONS)

if(BUNDLE_CDS_ARCHIVE)
    # Last of all; anew where the VM would refuse what is there, or the training was changed,
    # and whenever this component is installed by itself.
    set(training_arguments "")
    foreach(argument IN LISTS BUNDLE_TRAINING_ARGUMENTS)
        string(APPEND training_arguments " [==[${argument}]==]")
    endforeach()
    configure_file(cmake/install_cds_archive.cmake.in ${PROJECT_BINARY_DIR}/install_cds_archive.cmake
        @ONLY)
    install(SCRIPT ${PROJECT_BINARY_DIR}/install_cds_archive.cmake COMPONENT class-data)
endif()
