# One line a library and one line a test, so that a link line reads as the layer diagram.

# zark_library(zark_api LINK zark_thrift_api Qt5::Core): every source of the current folder and below.
function(zark_library name)
    cmake_parse_arguments(ARG "MODULE" "" "LINK;PRIVATE_LINK" ${ARGN})
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_library(${name} SHARED ${sources})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE ${ARG_PRIVATE_LINK})
endfunction()

# zark_test(CMPathTest unit LINK zark_api): one source, one executable, one ctest entry with a label and a deadline.
function(zark_test name label)
    cmake_parse_arguments(ARG "" "TIMEOUT" "LINK;SOURCES" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 60)
    endif()
    add_executable(${name} ${name}.cpp ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LINK} Qt5::Test)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    add_test(NAME ${label}.${name} COMMAND ${name})
    set_tests_properties(${label}.${name} PROPERTIES LABELS ${label} TIMEOUT ${ARG_TIMEOUT})
endfunction()
