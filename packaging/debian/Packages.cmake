# The Debian packages: numberportability from the component runtime, numberportability-http from http and
# numberportability-dev from dev. `scripts/build-packages` makes and checks them.
set(NP_MAINTAINER "NumberPortability maintainers <maintainers@numberportability.example.org>" CACHE STRING
    "Maintainer of the packages: whoever builds and hands them out")
set(release 1)

set(components runtime dev)
set(folder_runtime ${NP_INSTALL_DOCDIR})
set(folder_dev ${NP_INSTALL_DEVDOCDIR})
set(package_runtime numberportability)
set(package_dev numberportability-dev)
if(NP_HTTP)
  list(APPEND components http)
  set(folder_http ${NP_INSTALL_HTTPDOCDIR})
  set(package_http numberportability-http)
endif()

# zipped(SOURCE NAME): SOURCE, compressed as Debian wants it, in the document folders of all packages.
function(zipped source name)
  execute_process(COMMAND ${NP_GZIP} -9nc ${source} OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/${name}
                  COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  foreach(component IN LISTS components)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name} DESTINATION ${folder_${component}} COMPONENT ${component})
  endforeach()
endfunction()

configure_file(debian/changelog.in debian/changelog @ONLY)
configure_file(debian/copyright.in debian/copyright @ONLY)
if(NP_GZIP)
  zipped(${CMAKE_CURRENT_BINARY_DIR}/debian/changelog changelog.Debian.gz)
  zipped(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog.gz)
endif()
foreach(component IN LISTS components)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/debian/copyright DESTINATION ${folder_${component}} COMPONENT ${component})
  install(FILES debian/${package_${component}}.lintian-overrides COMPONENT ${component}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${package_${component}})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME numberportability)
set(CPACK_PACKAGE_CONTACT ${NP_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${release})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The front's package depends on this one's version anyway.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME numberportability)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION comm)
# systemd-sysusers makes the account; any package that has it will do. Zones are read from tzdata at run time.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
    "systemd | systemd-standalone-sysusers | systemd-sysusers, tzdata")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "network operator of a telephone number at an instant
nphost says to which network operator a telephone number belonged at an
instant, from a text file of portings and number blocks, as rating, routing
and settlement ask it for every call record. It looks numbers up on the
command line, enriches files of call records with networks, imports
operators' feeds, checks, prints and compares data files (check, print,
diff), or serves as a daemon that is reloaded while it answers, behind a
guard that refuses broken data files.

The package also has the module for programs that ask from within their own
process; numberportability-dev has what they are built with.
numberportability-http has the daemon answer over HTTP, too.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/conffiles
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/triggers)

set(CPACK_DEBIAN_HTTP_PACKAGE_NAME numberportability-http)
set(CPACK_DEBIAN_HTTP_PACKAGE_SECTION comm)
set(CPACK_DEBIAN_HTTP_PACKAGE_DEPENDS "numberportability (= ${PROJECT_VERSION}-${release})")
set(CPACK_DEBIAN_HTTP_DESCRIPTION "network operator of a telephone number - answers over HTTP
With it the daemon of numberportability answers over HTTP and HTTPS: look-ups,
single and streamed, histories, a page that shows a number's life, metrics for
Prometheus. It has the front that the daemon loads, a socket unit, the OpenAPI
document, alert rules for Prometheus and a dashboard for Grafana.")
set(CPACK_DEBIAN_HTTP_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/http/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/http/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/http/postrm)

set(CPACK_DEBIAN_DEV_PACKAGE_NAME numberportability-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "numberportability (= ${PROJECT_VERSION}-${release})")
set(CPACK_DEBIAN_DEV_DESCRIPTION "network operator of a telephone number - client modules
Headers, CMake package, pkg-config file and an example for client modules of
numberportability: shared objects in C++20 that look numbers up within the
process of the daemon, without its socket.")
include(CPack)
