# Libraries from outside, each as an imported target.
find_package(PkgConfig REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(RAPIDJSON REQUIRED IMPORTED_TARGET RapidJSON)
pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(OATH REQUIRED IMPORTED_TARGET liboath)
pkg_check_modules(CRYPT REQUIRED IMPORTED_TARGET libcrypt)
pkg_check_modules(CRYPTO REQUIRED IMPORTED_TARGET libcrypto)   # of OpenSSL
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(LDAP REQUIRED IMPORTED_TARGET ldap lber)
pkg_check_modules(PAM REQUIRED IMPORTED_TARGET pam)
pkg_check_modules(UTF8PROC REQUIRED IMPORTED_TARGET libutf8proc)

add_library(fcgi INTERFACE)          # libfcgi comes without a pkg-config file
find_library(FCGI_LIBRARY fcgi REQUIRED)
target_link_libraries(fcgi INTERFACE ${FCGI_LIBRARY})

# LDAP and PAM are loaded when they are first needed (linux/loaded_library.h), under the names that linking notes; the
# Debian package names their packages (debian/control).
function(tavr_soname library variable)
    execute_process(COMMAND ${CMAKE_READELF} -d ${library} OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
    if(NOT notes MATCHES "SONAME[^[]*\\[([^]]+)\\]")
        message(FATAL_ERROR "${library} has no name to be loaded by")
    endif()
    set(${variable} ${CMAKE_MATCH_1} PARENT_SCOPE)
endfunction()
list(GET LDAP_LINK_LIBRARIES 0 ldap_file)
tavr_soname(${ldap_file} LDAP_SONAME)
tavr_soname(${PAM_LINK_LIBRARIES} PAM_SONAME)
