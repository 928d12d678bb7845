# The framework of a device: five libraries by their names, and the folder of their headers. Another place than the
# system's is told as usual, with CMAKE_PREFIX_PATH or CMAKE_SYSROOT. docs/porting.md says what it has to offer.
find_path(ZARK_INCLUDE_DIR CMNodesWorker.h PATH_SUFFIXES zark REQUIRED)
foreach(name thrift_api crypto processhandler http_client api)
    find_library(ZARK_${name}_LIBRARY zark_${name} REQUIRED)
    add_library(zark_${name} UNKNOWN IMPORTED)
    set_target_properties(zark_${name} PROPERTIES IMPORTED_LOCATION ${ZARK_${name}_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${ZARK_INCLUDE_DIR}
        INTERFACE_LINK_LIBRARIES "Qt5::Core;Qt5::Network;PkgConfig::LOG4CPLUS")
endforeach()
