# Debian packages from the install components (cpack -G DEB in a shared
# release build; scripts/package.sh does all of it):
#   libqelmaps1         the shared library
#   libqelmaps-dev      the C API: qelmaps.h, qelmaps.pc and the link name;
#                       a C (Swift, JNI, Rust) application needs nothing else
#   libqelmaps-cxx-dev  the C++ headers, the CMake package and qelmaps-cxx.pc;
#                       needs Boost's headers and Boost.JSON's development
#                       files, which the C++ headers use
#   libqelmapsqt1       the Qt adapter and the QML map item (with Qt)
#   libqelmapsqt-dev    their headers and the CMake package's Qt component
#   qelmaps-tools       the cabin simulator and the demo application
# Dependencies on Debian's libraries come from dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qelmaps)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_CONTACT "QELMaps developers <qelmaps@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development cxxdevelopment)
if(QEL_QT_TARGETS)
  list(APPEND CPACK_COMPONENTS_ALL qt qtdevelopment)
endif()
if(QEL_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools link libqelmaps.so.1 from the build tree, which no installed
# package provides yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqelmaps${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqelmaps-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libqelmaps${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_CXXDEVELOPMENT_PACKAGE_NAME libqelmaps-cxx-dev)
set(CPACK_DEBIAN_CXXDEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_CXXDEVELOPMENT_PACKAGE_DEPENDS
  "libqelmaps-dev (= ${PROJECT_VERSION}), libboost${QEL_BOOST_VERSION}-dev, libboost-json${QEL_BOOST_VERSION}-dev")
set(CPACK_DEBIAN_QT_PACKAGE_NAME libqelmapsqt${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_QT_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_QT_PACKAGE_DEPENDS "libqelmaps${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_QTDEVELOPMENT_PACKAGE_NAME libqelmapsqt-dev)
set(CPACK_DEBIAN_QTDEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_QTDEVELOPMENT_PACKAGE_DEPENDS
  "libqelmapsqt${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libqelmaps-cxx-dev (= ${PROJECT_VERSION}), qt6-base-dev, qt6-declarative-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qelmaps-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libqelmaps${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")

include(CPack)
