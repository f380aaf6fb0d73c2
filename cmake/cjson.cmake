# SPDX-License-Identifier: Apache-2.0
#
# cJSON as the target `cjson`: Debian's library, or, for a machine that Debian has no library for,
# its source package unpacked into QEL_CJSON_SOURCE (see script/bootstrap).
set(QEL_CJSON_SOURCE "" CACHE PATH "Folder with cJSON.c, for cross builds; empty: the system's")
if(QEL_CJSON_SOURCE)
  add_library(cjson STATIC ${QEL_CJSON_SOURCE}/cJSON.c)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/cjson-include/cjson)
  configure_file(${QEL_CJSON_SOURCE}/cJSON.h ${CMAKE_BINARY_DIR}/cjson-include/cjson/cJSON.h COPYONLY)
  target_include_directories(cjson SYSTEM PUBLIC ${CMAKE_BINARY_DIR}/cjson-include)
else()
  find_path(CJSON_INCLUDE cjson/cJSON.h REQUIRED)
  find_library(CJSON_LIBRARY cjson REQUIRED)
  add_library(cjson INTERFACE)
  target_include_directories(cjson SYSTEM INTERFACE ${CJSON_INCLUDE})
  target_link_libraries(cjson INTERFACE ${CJSON_LIBRARY})
endif()
