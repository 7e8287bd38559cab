# What `cmake --install` puts in place: the client library with its headers,
# pkg-config file and CMake package; the Binder runtime it runs on, as a
# private library; the three programs with their man pages, the sample
# scenario, bash completion and systemd user units; the documentation.
include(CMakePackageConfigHelpers)

set(TIVRA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tivra)
set(TIVRA_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/tivra)
# libhostbinder is no interface of ours: it lives in a folder of its own and
# is found through the RUNPATH of what needs it.
set(TIVRA_PRIVATE_LIBDIR ${CMAKE_INSTALL_LIBDIR}/tivra)
file(RELATIVE_PATH _bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})

# The platform's libutils and liblog keep the rpath their imported targets carry.
set_target_properties(binderd tivra-monitord tivra-cli PROPERTIES
  INSTALL_RPATH "$ORIGIN/${_bin_to_lib}:$ORIGIN/${_bin_to_lib}/tivra")
set_target_properties(tivra PROPERTIES INSTALL_RPATH "$ORIGIN/tivra")

install(TARGETS tivra EXPORT tivraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tivra)
install(TARGETS hostbinder LIBRARY DESTINATION ${TIVRA_PRIVATE_LIBDIR} NAMELINK_SKIP)
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

# tivra.pc and the systemd units name absolute paths, so they are written when
# the prefix is known: at install time.
configure_file(${CMAKE_CURRENT_LIST_DIR}/InstallWithPrefix.cmake.in
  ${PROJECT_BINARY_DIR}/InstallWithPrefix.cmake @ONLY)
install(SCRIPT ${PROJECT_BINARY_DIR}/InstallWithPrefix.cmake)

install(FILES
  ${PROJECT_SOURCE_DIR}/docs/man/binderd.1
  ${PROJECT_SOURCE_DIR}/docs/man/tivra-monitord.1
  ${PROJECT_SOURCE_DIR}/docs/man/tivra.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${PROJECT_SOURCE_DIR}/docs/man/libtivra.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
install(FILES ${PROJECT_SOURCE_DIR}/tools/tivra/tivra-completion.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tivra)

# The documentation keeps the source tree's layout, so its links hold.
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${TIVRA_DOC_DIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${TIVRA_DOC_DIR}/docs
  FILES_MATCHING PATTERN "*.md" PATTERN man EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/examples/device_watch.cpp ${PROJECT_SOURCE_DIR}/examples/CMakeLists.txt
  DESTINATION ${TIVRA_DOC_DIR}/examples)
