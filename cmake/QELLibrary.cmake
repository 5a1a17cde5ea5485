# libqelmaps: what an application links, static or, with BUILD_SHARED_LIBS,
# libqelmaps.so.1.
#
# One library holds all three layers (platform, core kit, maps framework)
# rather than one per layer: the layers are of no use to an application
# apart (the framework needs the core kit's transports and the platform's run
# loop, and nothing else is built on the lower two), so splitting them would
# only add three SONAMEs, three ABIs to keep stable and three packages to
# version in lockstep. The layers remain static libraries of their own for
# the repository's tests, which reach their internals.
#
# Every symbol is hidden unless the public headers mark it QEL_EXPORT; the
# version script also keeps the C++ runtime's and Boost's template
# instances, which take default visibility from their own headers, out of
# the dynamic symbol table.
include(GNUInstallDirs)

set(QEL_LAYERS QELPlatform QELCoreKit QELMaps)
foreach(layer ${QEL_LAYERS} QELCoreKitTesting)
  set_target_properties(${layer} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ${BUILD_SHARED_LIBS})
endforeach()

add_library(QELMapsLibrary $<TARGET_OBJECTS:QELPlatform> $<TARGET_OBJECTS:QELCoreKit> $<TARGET_OBJECTS:QELMaps>)
set_target_properties(QELMapsLibrary PROPERTIES
  OUTPUT_NAME qelmaps
  EXPORT_NAME QELMaps
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINKER_LANGUAGE CXX
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
  ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
target_include_directories(QELMapsLibrary PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Platform/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/CoreKit/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Maps/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
# The public headers hold Asio and Boost.JSON types; Asio's differ in layout
# without this definition.
target_compile_definitions(QELMapsLibrary PUBLIC BOOST_ASIO_NO_DEPRECATED)
target_link_libraries(QELMapsLibrary
  PUBLIC Boost::headers Boost::json Threads::Threads
  PRIVATE Boost::url OpenSSL::SSL OpenSSL::Crypto CURL::libcurl PkgConfig::CARES PkgConfig::SPNG PkgConfig::TURBOJPEG)
if(BUILD_SHARED_LIBS)
  set(QEL_VERSION_SCRIPT ${PROJECT_SOURCE_DIR}/cmake/qelmaps.map)
  target_link_options(QELMapsLibrary PRIVATE -Wl,--version-script=${QEL_VERSION_SCRIPT} -Wl,-z,defs)
  set_property(TARGET QELMapsLibrary APPEND PROPERTY LINK_DEPENDS ${QEL_VERSION_SCRIPT})
endif()
