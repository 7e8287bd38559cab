# What `cmake --install` puts in place: the client library with its header,
# pkg-config file and CMake package, the Binder runtime it runs on, and the
# three programs with the sample scenario.
include(CMakePackageConfigHelpers)

set(TIVRA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tivra)

# Installed programs find the project's libraries next to them; the
# platform's libutils and liblog keep the rpath their imported targets carry.
set_target_properties(binderd tivra-monitord tivra-cli PROPERTIES
  INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
set_target_properties(hostbinder PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS tivra EXPORT tivraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tivra)
install(TARGETS hostbinder LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
install(TARGETS binderd tivra-monitord tivra-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/tools/scenarios/sample.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/tivra/scenarios)

install(EXPORT tivraTargets NAMESPACE tivra:: DESTINATION ${TIVRA_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tivraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tivraConfig.cmake INSTALL_DESTINATION ${TIVRA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tivraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tivraConfig.cmake ${PROJECT_BINARY_DIR}/tivraConfigVersion.cmake
  DESTINATION ${TIVRA_CMAKE_DIR})

file(RELATIVE_PATH TIVRA_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tivra.pc.in ${PROJECT_BINARY_DIR}/tivra.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tivra.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES
  ${PROJECT_SOURCE_DIR}/docs/man/binderd.1
  ${PROJECT_SOURCE_DIR}/docs/man/tivra-monitord.1
  ${PROJECT_SOURCE_DIR}/docs/man/tivra.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
