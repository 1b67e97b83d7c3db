# Debian packages from an installed build: `cpack -G DEB` in the build
# directory writes
#   libwebapi       the shared library and the administration tools
#   libwebapi-dev   headers, the CMake package and the pkg-config files
# Their version is the project's; dpkg-shlibdeps works out what the library
# and the tools load, and the runtime package carries a shlibs file so that
# programs built against it depend on it in turn. Lintian's findings that
# stand are explained in cmake/deb/libwebapi.lintian-overrides.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libwebapi)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "libwebapi developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "libwebapi developers <maintainers@libwebapi.example>")
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://libwebapi.example/")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libwebapi)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Logins open libpam.so.0, and link passwords libcrypt.so.1, only when they
# need them (dlopen), which dpkg-shlibdeps cannot see; pam_start_confdir
# came with PAM 1.4, yescrypt with libxcrypt 4.4.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libpam0g (>= 1.4.0), libcrypt1 (>= 1:4.4)")
# The library directory is one ldconfig knows: a trigger refreshes its
# cache once per dpkg run, where CPack's own maintainer scripts would run
# ldconfig on every install and removal.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/deb/triggers ${PROJECT_SOURCE_DIR}/cmake/deb/postinst
    ${PROJECT_SOURCE_DIR}/cmake/deb/postrm)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"C++ library for web administration APIs as CGI programs
libwebapi runs the server side of a web administration interface as CGI
programs: it reads and checks the request, validates it against the
program's API description, checks the caller's login session in a store
shared by all CGI processes, and answers with one JSON envelope.

This package holds the shared library and webapi-session, the tool that
creates, lists, revokes and purges login sessions.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libwebapi-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The headers include jsoncpp's; the exact version of the library with them.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libwebapi (= ${PROJECT_VERSION}), libjsoncpp-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"C++ library for web administration APIs as CGI programs (development files)
libwebapi runs the server side of a web administration interface as CGI
programs, one request per process, with the login sessions, JSON files and
security headers such programs need.

This package holds the headers, the CMake package (find_package(webapi))
and the pkg-config files needed to build CGI programs against libwebapi.")

# Each package's documentation directory: the copyright file, a changelog in
# Debian's format from the project version, and the lintian overrides.
string(TIMESTAMP webapi_changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component runtime dev)
  if(component STREQUAL "runtime")
    set(package libwebapi)
  else()
    set(package libwebapi-dev)
  endif()
  set(DEB_PACKAGE ${package})
  set(DEB_VERSION ${PROJECT_VERSION})
  set(DEB_DATE ${webapi_changelog_date})
  set(DEB_MAINTAINER ${CPACK_DEBIAN_PACKAGE_MAINTAINER})
  set(docs ${CMAKE_BINARY_DIR}/deb/${package})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/deb/changelog.in ${docs}/changelog @ONLY)
  execute_process(COMMAND gzip -9 -n -f ${docs}/changelog RESULT_VARIABLE gzip_result)
  if(NOT gzip_result EQUAL 0)
    message(FATAL_ERROR "gzip failed on ${docs}/changelog")
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/deb/copyright ${docs}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
  if(EXISTS ${PROJECT_SOURCE_DIR}/cmake/deb/${package}.lintian-overrides)
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/deb/${package}.lintian-overrides
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
            RENAME ${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endforeach()

include(CPack)
