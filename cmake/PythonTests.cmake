find_package(Python3 3.9 REQUIRED COMPONENTS Interpreter)

# add_python_tests(FILE [FIXTURES name...] [ENVIRONMENT var=value...] [LABELS label...]
#                  [TIMEOUT seconds])
# One ctest test for each test method of a unittest file, named DIRECTORY.method; a test that
# skips itself, or a part of itself, counts as skipped.
function(add_python_tests file)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "FIXTURES;ENVIRONMENT;LABELS")
    cmake_path(ABSOLUTE_PATH file NORMALIZE OUTPUT_VARIABLE path)
    cmake_path(GET path STEM module)
    cmake_path(GET path PARENT_PATH directory)
    cmake_path(GET directory FILENAME group)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${path}")
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 120)
    endif()
    file(STRINGS "${path}" lines REGEX "^class [A-Za-z]+|^    def test_")
    foreach(line IN LISTS lines)
        if(line MATCHES "^class ([A-Za-z0-9_]+)")
            set(class ${CMAKE_MATCH_1})
        elseif(line MATCHES "def (test_([A-Za-z0-9_]+))")
            set(name ${group}.${CMAKE_MATCH_2})
            add_test(NAME ${name}
                COMMAND Python3::Interpreter -B -m unittest -v ${module}.${class}.${CMAKE_MATCH_1}
                WORKING_DIRECTORY "${directory}")
            set_tests_properties(${name} PROPERTIES
                TIMEOUT ${arg_TIMEOUT}
                SKIP_REGULAR_EXPRESSION "OK \\(skipped="
                FIXTURES_REQUIRED "${arg_FIXTURES}"
                LABELS "${group};${arg_LABELS}"
                ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR}/test;BUILD_DIR=${PROJECT_BINARY_DIR};${arg_ENVIRONMENT}")
        endif()
    endforeach()
endfunction()
