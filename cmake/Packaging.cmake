# The kit as hosts consume it: libomrakit.so (exporting only the C API) and libomrakit.a (the whole
# kit, for C++ hosts), installed with the public headers, a CMake package and a pkg-config file.
include_guard(GLOBAL)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

omra_library(omra_capi src/capi DEPS omrakit)

# Every module's objects, so that one archive or shared object holds the whole kit.
set(_omra_kit_modules omra_foundation omra_platform omra_platform_store omra_platform_vision
    omra_cloud omra_scene omra_mapping omra_session omra_platform_env omra_capi)
set(_omra_kit_objects "")
foreach(m ${_omra_kit_modules})
  get_target_property(_type ${m} TYPE)
  if(NOT _type STREQUAL "INTERFACE_LIBRARY")
    list(APPEND _omra_kit_objects $<TARGET_OBJECTS:${m}>)
  endif()
endforeach()
set(_omra_kit_deps omra_asio CURL::libcurl OpenSSL::Crypto ZLIB::ZLIB SQLite::SQLite3
    nlohmann_json::nlohmann_json omra_opencv PNG::PNG Threads::Threads)

add_library(omrakit_shared SHARED ${_omra_kit_objects})
target_link_libraries(omrakit_shared PRIVATE ${_omra_kit_deps} omra_build_flags)
target_link_options(omrakit_shared PRIVATE
  -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/omrakit.map -Wl,--no-undefined)
set_target_properties(omrakit_shared PROPERTIES
  OUTPUT_NAME omrakit VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/omrakit.map)
target_include_directories(omrakit_shared INTERFACE
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

add_library(omrakit_static STATIC ${_omra_kit_objects})
set_target_properties(omrakit_static PROPERTIES OUTPUT_NAME omrakit)
# The public C++ headers need C++20 (defaulted comparisons); consumers inherit the requirement.
target_compile_features(omrakit_static INTERFACE cxx_std_20)
target_link_libraries(omrakit_static INTERFACE
  $<INSTALL_INTERFACE:CURL::libcurl> $<INSTALL_INTERFACE:OpenSSL::Crypto>
  $<INSTALL_INTERFACE:ZLIB::ZLIB> $<INSTALL_INTERFACE:SQLite::SQLite3>
  $<INSTALL_INTERFACE:nlohmann_json::nlohmann_json> $<INSTALL_INTERFACE:Threads::Threads>
  $<INSTALL_INTERFACE:PNG::PNG>
  $<INSTALL_INTERFACE:${OpenCV_LIBS}>)
target_include_directories(omrakit_static INTERFACE
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(DIRECTORY include/omrakit DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Two export sets: the shared library's needs nothing else; the archive's needs the kit's
# dependencies, which the package looks for only when they are there (see omrakitConfig.cmake.in).
install(TARGETS omrakit_shared EXPORT omrakitTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS omrakit_static EXPORT omrakitStaticTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT omrakitTargets NAMESPACE omrakit:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omrakit)
install(EXPORT omrakitStaticTargets NAMESPACE omrakit::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omrakit)
# Installed stripped: the symbols are for debugging the build tree, not for hosts.
if(CMAKE_STRIP)
  install(CODE "
    file(GLOB _omra_installed \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libomrakit.so.*\")
    foreach(_f \${_omra_installed})
      if(NOT IS_SYMLINK \"\${_f}\")
        execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-unneeded \"\${_f}\")
      endif()
    endforeach()")
endif()
configure_package_config_file(cmake/omrakitConfig.cmake.in
  ${PROJECT_BINARY_DIR}/omrakitConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omrakit)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/omrakitConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/omrakitConfig.cmake ${PROJECT_BINARY_DIR}/omrakitConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/omrakit)
file(RELATIVE_PATH OMRA_PC_INCLUDE_FROM_LIBDIR /${CMAKE_INSTALL_LIBDIR}/.. /${CMAKE_INSTALL_INCLUDEDIR})
configure_file(cmake/omrakit.pc.in ${PROJECT_BINARY_DIR}/omrakit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/omrakit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
