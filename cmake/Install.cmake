# Install rules: the library, its public headers, the platform headers, an
# exported CMake package (find_package(webapi)) and one pkg-config file per
# library. Two components, one Debian package each (cmake/Package.cmake):
# "runtime" holds what a CGI program and an administrator need, "dev" what
# a build against the library needs.
include(CMakePackageConfigHelpers)

set(webapi_install_targets webapi)
if(WEBAPI_SPLIT_PLATFORM)
  list(APPEND webapi_install_targets merocore merocgi merosdk merosharing mero_pam_login zel)
endif()

install(TARGETS ${webapi_install_targets}
  EXPORT webapiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES
  include/webapi/Export.h
  include/webapi/JsonValue.h
  include/webapi/RunAsGuard.h
  include/webapi/Serve.h
  include/webapi/WebAPI.h
  include/webapi/WebAPIUtil.h
  include/webapi/WebCGI.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/webapi COMPONENT dev)
install(FILES
  platform/include/mero_export.h
  platform/include/merocgi.h
  platform/include/merocgi_server.h
  platform/include/mero_request_io.h
  platform/include/merocore.h
  platform/include/merosdk.h
  platform/include/merosharing.h
  platform/include/mero_pam_login.h
  platform/include/zel.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mero COMPONENT dev)

install(EXPORT webapiTargets NAMESPACE webapi:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/webapi
        COMPONENT dev)
configure_package_config_file(cmake/webapiConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/webapiConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/webapi)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/webapiConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/webapiConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/webapiConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/webapi COMPONENT dev)

# pkg-config: webapi.pc always; merocore.pc, merocgi.pc, merosdk.pc,
# merosharing.pc and zel.pc name the library that holds those symbols (libwebapi itself unless
# the platform is split).
# The prefix is found relative to the .pc file, so a staged or relocated
# install works as well as the configured prefix.
file(RELATIVE_PATH webapi_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
function(webapi_pkgconfig name description requires libname)
  set(PC_NAME ${name})
  set(PC_DESCRIPTION ${description})
  set(PC_REQUIRES ${requires})
  set(PC_LIBNAME ${libname})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()
if(WEBAPI_SPLIT_PLATFORM)
  webapi_pkgconfig(webapi "Web administration API library for CGI programs" "jsoncpp merocgi merocore merosdk merosharing mero-pam-login zel" webapi)
  webapi_pkgconfig(merocore "Core platform library: string lists and hashes, settings, locks" "" merocore)
  webapi_pkgconfig(merocgi "CGI platform library: request state, parameters, cookies, response" "merocore mero-pam-login" merocgi)
  webapi_pkgconfig(merosdk "SDK platform library: accounts behind login names" "" merosdk)
  webapi_pkgconfig(merosharing "Sharing platform library: links, sharing sessions, the sharing decision" "merocore" merosharing)
  webapi_pkgconfig(mero-pam-login "PAM login platform library: password checks, PAM configuration" "merocore" mero-pam-login)
  webapi_pkgconfig(zel "Security headers platform library" "jsoncpp" zel)
else()
  webapi_pkgconfig(webapi "Web administration API library for CGI programs" "jsoncpp" webapi)
  webapi_pkgconfig(merocore "Core platform library (inside libwebapi)" "" webapi)
  webapi_pkgconfig(merocgi "CGI platform library (inside libwebapi)" "merocore" webapi)
  webapi_pkgconfig(merosdk "SDK platform library (inside libwebapi)" "" webapi)
  webapi_pkgconfig(merosharing "Sharing platform library (inside libwebapi)" "merocore" webapi)
  webapi_pkgconfig(mero-pam-login "PAM login platform library (inside libwebapi)" "merocore" webapi)
  webapi_pkgconfig(zel "Security headers platform library (inside libwebapi)" "jsoncpp" webapi)
endif()
