# Every outside library kelbase builds on comes from Debian's packages (scripts/install-deps.sh).
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS filesystem log log_setup regex thread)
find_package(OpenSSL 3 REQUIRED)
find_package(pugixml REQUIRED)
find_package(RapidJSON REQUIRED)
find_library(KEL_LDAP_LIB ldap REQUIRED)
find_library(KEL_LBER_LIB lber REQUIRED)
