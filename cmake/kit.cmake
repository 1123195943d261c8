# SPDX-License-Identifier: Apache-2.0
# What `make install` gives those who run the relay on a platform of their own: libravo.a, the boundary's headers with
# the two that a main needs, what tries a platform's services, and the words for pkg-config (ravo) and CMake (find_package(ravo), target ravo::ravo).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KIT_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/ravo)
set(KIT_CMAKE ${CMAKE_INSTALL_LIBDIR}/cmake/ravo)

file(GLOB BOUNDARY_HEADERS CONFIGURE_DEPENDS platform/h/*.h)
target_include_directories(ravo INTERFACE $<INSTALL_INTERFACE:${KIT_HEADERS}>)
target_compile_features(ravo INTERFACE cxx_std_20)

# What tries a platform's services, as a library of its own: the relay does not need it.
file(GLOB CONFORMANCE_SOURCES CONFIGURE_DEPENDS conformance/*.cpp)
add_library(ravo_conformance STATIC ${CONFORMANCE_SOURCES})
target_include_directories(ravo_conformance PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/conformance>
                                                   $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/platform/h>
                                            INTERFACE $<INSTALL_INTERFACE:${KIT_HEADERS}>)
set_target_properties(ravo_conformance PROPERTIES EXPORT_NAME conformance)
ravo_harden(ravo_conformance)

install(TARGETS ravo ravo_conformance EXPORT ravo ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT kit)
install(FILES ${BOUNDARY_HEADERS} user/h/ravo_main.h user/h/ravo_access.h conformance/ravo_conformance.h
        DESTINATION ${KIT_HEADERS} COMPONENT kit)
install(EXPORT ravo NAMESPACE ravo:: FILE ravo-config.cmake DESTINATION ${KIT_CMAKE} COMPONENT kit)
write_basic_package_version_file(ravo-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ravo-config-version.cmake DESTINATION ${KIT_CMAKE} COMPONENT kit)

# The words for pkg-config find their folder from where they are, so that PREFIX may be chosen at install time.
file(RELATIVE_PATH KIT_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/ravo.pc.in ravo.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ravo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT kit)
