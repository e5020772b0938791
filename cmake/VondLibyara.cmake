# vond::libyara, the engine: the system's from 4.5 on; else the one scripts/get-libyara has built, linked statically;
# else the system's.

option(VOND_SYSTEM_YARA "Link the system's libyara, whatever its version" OFF)

add_library(vond_libyara INTERFACE)
add_library(vond::libyara ALIAS vond_libyara)

set(built_yara ${PROJECT_SOURCE_DIR}/build/libyara)
pkg_check_modules(YARA IMPORTED_TARGET yara)
if(NOT VOND_SYSTEM_YARA AND YARA_VERSION VERSION_LESS 4.5 AND EXISTS ${built_yara}/lib/libyara.a)
  pkg_check_modules(JANSSON REQUIRED IMPORTED_TARGET jansson)
  find_package(OpenSSL REQUIRED COMPONENTS Crypto)
  find_library(MAGIC_LIBRARY magic REQUIRED)
  add_library(vond_built_yara STATIC IMPORTED)
  set_target_properties(vond_built_yara PROPERTIES IMPORTED_LOCATION ${built_yara}/lib/libyara.a)
  target_include_directories(vond_built_yara INTERFACE ${built_yara}/include)
  target_link_libraries(vond_built_yara INTERFACE PkgConfig::JANSSON OpenSSL::Crypto ${MAGIC_LIBRARY} m)
  target_link_libraries(vond_libyara INTERFACE vond_built_yara)
  file(READ ${built_yara}/version version)
  string(STRIP "${version}" version)
  message(STATUS "libyara: ${version} from build/libyara, static")
elseif(YARA_FOUND)
  target_link_libraries(vond_libyara INTERFACE PkgConfig::YARA)
  message(STATUS "libyara: the system's ${YARA_VERSION}")
else()
  message(FATAL_ERROR "No libyara: install libyara-dev")
endif()
