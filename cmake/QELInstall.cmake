# cmake --install: the public headers, libqelmaps, the CMake package
# (QELMaps::QELMaps), the pkg-config files and, with the tools, the
# simulator and the demo. Components: runtime (the shared library),
# development (what a C application needs: qelmaps.h, qelmaps.pc and the
# library's link name, nothing of Boost), cxxdevelopment (the C++ headers,
# the CMake package and qelmaps-cxx.pc, which need Boost's headers), qt and
# qtdevelopment (the Qt adapter and QML item, and what builds against them)
# and tools; the Debian packages follow them.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Only what <QELMaps/QELMaps.h> includes, directly or not: the consumer test
# builds against the installed tree alone, so a missing header fails it.
install(FILES Maps/include/QELMaps/qelmaps.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QELMaps COMPONENT development)
install(FILES
  Maps/include/QELMaps/QELMaps.h
  Maps/include/QELMaps/QELBroadcastMapsHost.h
  Maps/include/QELMaps/QELBroadcastMapsNotifications.h
  Maps/include/QELMaps/QELBroadcastMapsSnapshot.h
  Maps/include/QELMaps/QELBroadcastMapsStatus.h
  Maps/include/QELMaps/QELBroadcastMapsTrace.h
  Maps/include/QELMaps/QELBroadcastMapsV1.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QELMaps COMPONENT cxxdevelopment)
install(FILES
  Platform/include/qel/Data.h
  Platform/include/qel/Export.h
  Platform/include/qel/Format.h
  Platform/include/qel/Geometry.h
  Platform/include/qel/Image.h
  Platform/include/qel/Notification.h
  Platform/include/qel/NotificationCenter.h
  Platform/include/qel/Object.h
  Platform/include/qel/RunLoop.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qel COMPONENT cxxdevelopment)
install(FILES
  CoreKit/include/qel/core/QELHostname.h
  CoreKit/include/qel/core/QELRequest.h
  CoreKit/include/qel/core/ReconnectPolicy.h
  CoreKit/include/qel/core/RequestTransport.h
  CoreKit/include/qel/core/ResponseCache.h
  CoreKit/include/qel/core/SkelionService.h
  CoreKit/include/qel/core/TransportMonitor.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qel/core COMPONENT cxxdevelopment)

install(TARGETS QELMapsLibrary EXPORT QELMapsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

set(QEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QELMaps)
install(EXPORT QELMapsTargets NAMESPACE QELMaps:: DESTINATION ${QEL_CMAKE_DIR} COMPONENT cxxdevelopment)
set(QEL_QT_COMPONENTS "Core Gui")
if(TARGET QELMapsQuick)
  string(APPEND QEL_QT_COMPONENTS " Qml Quick")
endif()
configure_package_config_file(cmake/QELMapsConfig.cmake.in ${PROJECT_BINARY_DIR}/QELMapsConfig.cmake
  INSTALL_DESTINATION ${QEL_CMAKE_DIR})
# 1.x stays compatible with 1.0: the SONAME carries the major version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QELMapsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QELMapsConfig.cmake ${PROJECT_BINARY_DIR}/QELMapsConfigVersion.cmake
  DESTINATION ${QEL_CMAKE_DIR} COMPONENT cxxdevelopment)

# The pkg-config files find their prefix from where they lie, so the tree
# can move (a temporary prefix, a scratch root, /usr). qelmaps.pc is the C
# API's and names nothing of C++ or Boost; qelmaps-cxx.pc adds what the C++
# headers need. A static library lists what it needs for the application's
# link; the shared one needs nothing more.
file(RELATIVE_PATH QEL_PC_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
if(BUILD_SHARED_LIBS)
  set(QEL_PC_PRIVATE "")
else()
  set(QEL_PC_PRIVATE "Requires.private: spng libturbojpeg libssl libcrypto libcurl libcares\nLibs.private: -lboost_json -lboost_url -lstdc++ -lm -pthread")
endif()
configure_file(cmake/qelmaps.pc.in ${PROJECT_BINARY_DIR}/qelmaps.pc @ONLY)
configure_file(cmake/qelmaps-cxx.pc.in ${PROJECT_BINARY_DIR}/qelmaps-cxx.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qelmaps.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/qelmaps-cxx.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT cxxdevelopment)

# The Qt component: libqelmapsqt (and libqelmapsquick with Qt Quick), their
# headers and QELMapsQtTargets.cmake, which the package's config includes
# for find_package(QELMaps COMPONENTS Qt).
if(QEL_QT_TARGETS)
  install(TARGETS ${QEL_QT_TARGETS} EXPORT QELMapsQtTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT qt NAMELINK_COMPONENT qtdevelopment
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT qtdevelopment)
  install(FILES Qt/include/QELMapsQt/QtBroadcastMaps.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QELMapsQt COMPONENT qtdevelopment)
  if(TARGET QELMapsQuick)
    install(FILES Qt/Quick/include/QELMapsQt/QtMapItem.h
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QELMapsQt COMPONENT qtdevelopment)
  endif()
  install(EXPORT QELMapsQtTargets NAMESPACE QELMaps:: DESTINATION ${QEL_CMAKE_DIR} COMPONENT qtdevelopment)
endif()

if(QEL_BUILD_TOOLS)
  set(QEL_TOOLS cabin-sim qelmaps-demo)
  # Found next to the library in any prefix; under /usr the loader finds it anyway.
  set_target_properties(${QEL_TOOLS} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ${QEL_TOOLS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()

include(QELPackage)
