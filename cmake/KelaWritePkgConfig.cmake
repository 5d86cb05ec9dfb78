# SPDX-License-Identifier: Apache-2.0
# Run at install time (install(CODE) in the top-level CMakeLists.txt): writes
# one pkg-config file from its template for the prefix this installation
# uses.  Inputs: KELA_PC_TEMPLATE, KELA_PC_FILE, KELA_PC_VERSION,
# KELA_PC_LIBDIR and KELA_PC_INCLUDEDIR (as configured, relative to the
# prefix unless given as absolute paths).
set(KELA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
foreach(dir LIBDIR INCLUDEDIR)
  if(NOT IS_ABSOLUTE "${KELA_PC_${dir}}")
    set(KELA_PC_${dir} "\${prefix}/${KELA_PC_${dir}}")
  endif()
endforeach()
configure_file("${KELA_PC_TEMPLATE}" "${KELA_PC_FILE}" @ONLY)
