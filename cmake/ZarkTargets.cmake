# One line a library and one line a test, so that a link line reads as the layer diagram.

# zark_library(zark_api LINK zark_thrift_api Qt5::Core): every source of the current folder and below.
function(zark_library name)
    cmake_parse_arguments(ARG "MODULE" "" "LINK;PRIVATE_LINK" ${ARGN})
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_library(${name} SHARED ${sources})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE ${ARG_PRIVATE_LINK})
    target_precompile_headers(${name} REUSE_FROM zark_pch)
endfunction()

# zark_program(zarkctl LINK Qt5::Core): every source of the current folder.
function(zark_program name)
    cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_executable(${name} ${sources})
    target_link_libraries(${name} PRIVATE ${ARG_LINK})
    target_precompile_headers(${name} REUSE_FROM zark_pch)
endfunction()

# zark_layer(webserver_files LINK webserver_log ...): the current folder, or only SOURCES of it, as objects of a library
# that is linked elsewhere. A layer sees the headers of what its line names, and it is linked once for its own sake, so
# that what it takes from a layer above is an undefined symbol.
function(zark_layer name)
    cmake_parse_arguments(ARG "" "" "LINK;SOURCES" ${ARGN})
    if(NOT ARG_SOURCES)
        file(GLOB ARG_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    endif()
    add_library(${name} OBJECT ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC ${ARG_LINK})
    target_precompile_headers(${name} REUSE_FROM zark_pch)
    if(NOT ZARK_SANITIZE) # The sanitizers' own symbols are the program's to bring.
        add_library(${name}_alone MODULE ${CMAKE_SOURCE_DIR}/cmake/empty.cpp)
        target_link_libraries(${name}_alone PRIVATE ${name} ${ARG_LINK})
        target_link_options(${name}_alone PRIVATE -Wl,--no-undefined)
        set_target_properties(${name}_alone PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/layers)
    endif()
endfunction()

# zark_test(CMPathTest unit LINK zark_api): one source, one executable, one ctest entry with a label and a deadline.
# Qt Test's headers read otherwise beside Qt Network; all tests see it, so that they share what is precompiled.
function(zark_test name label)
    cmake_parse_arguments(ARG "" "TIMEOUT" "LINK;SOURCES" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 60)
    endif()
    add_executable(${name} ${name}.cpp ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LINK} zark_testing Qt5::Network Qt5::Test)
    target_precompile_headers(${name} REUSE_FROM zark_pch_tests)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
    add_test(NAME ${label}.${name} COMMAND ${name})
    set_tests_properties(${label}.${name} PROPERTIES LABELS ${label} TIMEOUT ${ARG_TIMEOUT})
endfunction()
