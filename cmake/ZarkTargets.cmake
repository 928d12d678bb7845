# One line a library and one line a test, so that a link line reads as the layer diagram.

# zark_library(zark_api LINK zark_thrift_api Qt5::Core): every source of the current folder and below.
function(zark_library name)
    cmake_parse_arguments(ARG "" "" "LINK;PRIVATE_LINK" ${ARGN})
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_library(${name} SHARED ${sources})
    target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>)
    target_link_libraries(${name} PUBLIC ${ARG_LINK} PRIVATE ${ARG_PRIVATE_LINK})
    target_precompile_headers(${name} REUSE_FROM zark_pch)
endfunction()

# zark_exports(zark_api framework.map): what of a library other programs see, and under which version.
function(zark_exports name map)
    target_link_options(${name} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/${map})
    set_target_properties(${name} PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/${map})
endfunction()

# zark_framework_library(zark_api LINK ...): a library that modules and devices link, with its headers, in one folder.
function(zark_framework_library name)
    zark_library(${name} ${ARGN})
    zark_exports(${name} framework.map)
    string(REPLACE zark_ "" export ${name})
    set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} EXPORT_NAME ${export})
    target_include_directories(${name} INTERFACE $<INSTALL_INTERFACE:include/zark>)
    install(TARGETS ${name} EXPORT Zark LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zark FILES_MATCHING PATTERN "*.h")
endfunction()

# zark_install_module(zark_player): where the host looks for modules by their names.
function(zark_install_module name)
    set_target_properties(${name} PROPERTIES INSTALL_RPATH $ORIGIN/..)
    install(TARGETS ${name} LIBRARY DESTINATION ${ZARK_MODULE_DIR})
endfunction()

# zark_program(zarkctl LINK Qt5::Core): every source of the current folder.
function(zark_program name)
    cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
    file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_executable(${name} ${sources})
    target_link_libraries(${name} PRIVATE ${ARG_LINK})
    target_precompile_headers(${name} REUSE_FROM zark_pch)
    set_target_properties(${name} PROPERTIES INSTALL_RPATH $ORIGIN/../${CMAKE_INSTALL_LIBDIR})
    install(TARGETS ${name})
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
    if(ZARK_TESTS AND NOT ZARK_SANITIZE) # The sanitizers' own symbols are the program's to bring.
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
