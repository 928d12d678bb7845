# find_package(Zark): Zark::api, Zark::thrift_api, Zark::crypto, Zark::http_client and Zark::processhandler, for modules.
include(CMakeFindDependencyMacro)
find_dependency(Qt5 COMPONENTS Core Network)
find_dependency(PkgConfig)
pkg_check_modules(LOG4CPLUS REQUIRED IMPORTED_TARGET log4cplus)
include(${CMAKE_CURRENT_LIST_DIR}/ZarkTargets.cmake)
