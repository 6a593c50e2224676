# Installation: the shared library with its SONAME links, the public headers
# under include/taze/, the command-line tools that were built, a CMake
# package (find_package(taze CONFIG) -> taze::taze) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(TAZE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/taze)

# Hosts include either <taze/tazapi.h> or <tazapi.h>.
target_include_directories(taze INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS taze EXPORT tazeTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES
  ${PROJECT_SOURCE_DIR}/include/tazapi.h
  ${PROJECT_SOURCE_DIR}/include/vkerror.h
  ${PROJECT_SOURCE_DIR}/include/taze.hpp
  ${PROJECT_SOURCE_DIR}/include/taze_candidates.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/taze)

foreach(tool IN ITEMS tazc taze_inspect)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

install(EXPORT tazeTargets NAMESPACE taze:: FILE tazeTargets.cmake DESTINATION ${TAZE_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tazeConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tazeConfig.cmake
  INSTALL_DESTINATION ${TAZE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tazeConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tazeConfig.cmake ${PROJECT_BINARY_DIR}/tazeConfigVersion.cmake
  DESTINATION ${TAZE_CMAKE_DIR})

# pkg-config: relative to the file's own place when the directories are
# relative, so that `cmake --install --prefix` anywhere gives a working file.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(TAZE_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(TAZE_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(TAZE_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH up "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(TAZE_PC_PREFIX "\${pcfiledir}/${up}")
  set(TAZE_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(TAZE_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/taze.pc.in ${PROJECT_BINARY_DIR}/taze.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/taze.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
