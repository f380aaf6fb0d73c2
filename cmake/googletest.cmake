# SPDX-License-Identifier: Apache-2.0
#
# GTest::gtest, GTest::gtest_main, GTest::gmock and GTest::gmock_main, built from Debian's sources
# with this build's own flags: the sanitizers, the standard library and the processor must match.
# Include it after CMAKE_CXX_STANDARD is set; the second include does nothing.
include_guard(GLOBAL)
set(QEL_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "Folder with GoogleTest's sources")
if(NOT EXISTS ${QEL_GOOGLETEST_SOURCE}/CMakeLists.txt)
  message(FATAL_ERROR "GoogleTest's sources are not in ${QEL_GOOGLETEST_SOURCE}: script/bootstrap installs them")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(${QEL_GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
foreach(name gtest gtest_main gmock gmock_main)
  if(NOT TARGET GTest::${name})
    add_library(GTest::${name} ALIAS ${name})
  endif()
endforeach()
include(GoogleTest)
