# Debian packages, one per install component, built by CPack's DEB
# generator (bash scripts/package.sh):
#   library      libx509auth3               the shared library
#   development  libx509auth-dev            header, pkg-config file, CMake package
#   tools        x509auth-tools             x509-auth, its manual page and completion
#   provider     x509auth-openssl-provider  the OpenSSL provider module
#   pkcs11       x509auth-pkcs11            the PKCS#11 module and its p11-kit file
# A further package is a component added to X509AUTH_DEB_COMPONENTS with its
# name, summary and dependencies below.
set(X509AUTH_DEB_COMPONENTS library development tools provider pkcs11)
if(NOT X509AUTH_BUILD_TOOLS)
  list(REMOVE_ITEM X509AUTH_DEB_COMPONENTS tools)
endif()

set(x509auth_deb_library libx509auth3)
set(x509auth_deb_development libx509auth-dev)
set(x509auth_deb_tools x509auth-tools)
set(x509auth_deb_provider x509auth-openssl-provider)
set(x509auth_deb_pkcs11 x509auth-pkcs11)

# Debian wants a copyright file and a changelog in every package's doc
# directory; a plain `cmake --install` does without them.
option(X509AUTH_DEBIAN_DOCS "Install the Debian doc files (copyright, changelog) of each package" OFF)
if(X509AUTH_DEBIAN_DOCS)
  string(TIMESTAMP x509auth_changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  # A native package: its changelog is changelog.gz.
  set(x509auth_changelog ${PROJECT_BINARY_DIR}/debian/changelog)
  file(WRITE ${x509auth_changelog}
       "x509auth (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
       "  * Packages built from the source tree with CPack (scripts/package.sh).\n\n"
       " -- x509auth maintainers <maintainers@users.noreply.c-seed-98f57e20.example>  "
       "${x509auth_changelog_date}\n")
  execute_process(COMMAND gzip -9 -n -f ${x509auth_changelog})
  foreach(component IN LISTS X509AUTH_DEB_COMPONENTS)
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright ${x509auth_changelog}.gz
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${x509auth_deb_${component}}
            COMPONENT ${component})
  endforeach()
endif()

set(CPACK_PACKAGE_NAME x509auth)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "x509auth maintainers")
set(CPACK_PACKAGE_CONTACT "x509auth maintainers <maintainers@users.noreply.c-seed-98f57e20.example>")
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${X509AUTH_DEB_COMPONENTS})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Dependencies from the binaries themselves; libx509auth.so.3 is this
# build's own, found here and named by the explicit dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(x509auth_deb_this_library "${x509auth_deb_library} (= ${PROJECT_VERSION})")

foreach(component IN ITEMS library development tools provider pkcs11)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${x509auth_deb_${component}})
endforeach()

set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "X.509 client certificates and their private keys for TLS client authentication\n"
    "libx509auth gives host programs the user's X.509 client certificates (from\n"
    "certificate directories and PKCS#11 smart cards) and signs and decrypts with\n"
    "their private keys, through a plain C interface.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# shlibs control file: hosts linked against this build depend on it or newer.
# (CPack knows this setting for all packages only; the library is the one
# with a SONAME.)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)

set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "X.509 client certificates for TLS client authentication (development files)\n"
    "The header x509_auth.h, the pkg-config file x509auth.pc and the CMake package\n"
    "x509auth for programs built against libx509auth.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${x509auth_deb_this_library}, libssl-dev, libp11-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)

set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "X.509 client certificates: the x509-auth command-line tool\n"
    "x509-auth lists the client certificates this machine offers, explains why a\n"
    "certificate is not offered, signs and decrypts with their keys and makes a\n"
    "TLS handshake with one. With its manual page and bash completion.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${x509auth_deb_this_library}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "opensc-pkcs11, gcr")

set(CPACK_COMPONENT_PROVIDER_DESCRIPTION
    "X.509 client certificates: OpenSSL 3 provider\n"
    "The x509auth provider lets OpenSSL programs use the client certificates and\n"
    "keys of libx509auth through x509auth: URIs. It is installed into OpenSSL's\n"
    "modules directory, so 'openssl ... -provider x509auth' finds it.")
set(CPACK_DEBIAN_PROVIDER_PACKAGE_SECTION libs)

set(CPACK_COMPONENT_PKCS11_DESCRIPTION
    "X.509 client certificates: PKCS#11 module\n"
    "x509auth-pkcs11.so offers the client certificates and keys of libx509auth\n"
    "to PKCS#11 programs (NSS browsers, GnuTLS programs, ssh, pkcs11-tool). Its\n"
    "p11-kit module file is shipped in modules-available, for opt-in use.")
set(CPACK_DEBIAN_PKCS11_PACKAGE_SECTION libs)

include(CPack)
