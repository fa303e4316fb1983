# Debian packages, made by scripts/package in a build folder with BUILD_SHARED_LIBS and the prefix /usr:
# the two libraries, what programs are built with, and the tools.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# The owner has not named an address. Whoever gives packages away sets theirs.
set(MARBLEWAY_MAINTAINER "Marbleway maintainers <maintainers@marbleway.invalid>" CACHE STRING
  "The maintainer of the Debian packages, with a mail address")
set(CPACK_PACKAGE_CONTACT ${MARBLEWAY_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "analytics and attribution for applications")
set(CPACK_PACKAGE_DESCRIPTION
"Records what happens in an application (sessions, users, events, screens,
 errors, crashes) row by row in SQLite on the device, sends the rows to a
 collection server and deletes them once the server has taken them.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})  # of the toolchain file
  foreach(folder lib usr/lib)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
      ${CMAKE_SYSROOT}/${folder}/${CMAKE_LIBRARY_ARCHITECTURE})
  endforeach()
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# Each package has its changelog and the licence's state under /usr/share/doc; an installation without
# packages has neither.
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
function(debian_package component package section summary)
  string(TOUPPER ${component} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${name}_DESCRIPTION
    "${CPACK_PACKAGE_DESCRIPTION_SUMMARY} - ${summary}\n${CPACK_PACKAGE_DESCRIPTION}" PARENT_SCOPE)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} PARENT_SCOPE)
  if(section STREQUAL libs)
    set(CPACK_DEBIAN_${name}_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers PARENT_SCOPE)
  endif()
  set(folder ${PROJECT_BINARY_DIR}/debian/${package})
  file(WRITE ${folder}/changelog "${package} (${PROJECT_VERSION}-1) unstable; urgency=medium

  * See CHANGELOG.md in the sources.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  execute_process(COMMAND gzip -9nf changelog WORKING_DIRECTORY ${folder})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES ${folder}/changelog.gz RENAME changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

set(major ${PROJECT_VERSION_MAJOR})
debian_package(runtime libmarbleway${major} libs "library")
debian_package(development libmarbleway-dev libdevel "what programs are built with")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libmarbleway${major} (= ${PROJECT_VERSION}-1)")
if(TARGET marbleway_c)
  debian_package(c libmarbleway-c${major} libs "library for C")
  set(CPACK_DEBIAN_C_PACKAGE_DEPENDS "libmarbleway${major} (= ${PROJECT_VERSION}-1)")
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    ", libmarbleway-c${major} (= ${PROJECT_VERSION}-1)")
endif()
if(TARGET marbleway_desktop)
  debian_package(desktop libmarbleway-desktop${major} libs "services of a Linux desktop")
  set(CPACK_DEBIAN_DESKTOP_PACKAGE_DEPENDS "libmarbleway${major} (= ${PROJECT_VERSION}-1)")
  string(APPEND CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    ", libmarbleway-desktop${major} (= ${PROJECT_VERSION}-1)")
endif()
if(MARBLEWAY_TOOLS)
  debian_package(tools marbleway-tools devel "collector and inspector")
endif()

include(CPack)
