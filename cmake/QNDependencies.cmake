# Third-party libraries, all from the distribution. Each is linked privately by the one room that includes it.

find_package(PkgConfig REQUIRED)
find_package(LibXml2 2.9 REQUIRED)
find_package(CURL 7.80 REQUIRED)
find_package(SQLite3 3.35 REQUIRED)
find_package(ZLIB REQUIRED)
find_package(nlohmann_json 3.9 REQUIRED)
find_package(utf8cpp REQUIRED)
find_package(CLI11 2.1 REQUIRED)
pkg_check_modules(xxhash REQUIRED IMPORTED_TARGET libxxhash)
# On x86 the library may hold a build of each function for every width of registers; it is twice as fast then.
include(CheckCXXSourceCompiles)
set(CMAKE_REQUIRED_LIBRARIES PkgConfig::xxhash)
check_cxx_source_compiles("
#include <xxh_x86dispatch.h>
int main() { return static_cast<int>(XXH3_64bits(nullptr, 0)); }" QN_HAVE_XXH_DISPATCH)
unset(CMAKE_REQUIRED_LIBRARIES)
pkg_check_modules(microhttpd REQUIRED IMPORTED_TARGET libmicrohttpd)
if(QN_WITH_ICU)
  find_package(ICU COMPONENTS uc i18n)
endif()
if(QN_WITH_SYSTEMD)
  pkg_check_modules(libsystemd IMPORTED_TARGET libsystemd)
endif()
