# Runs at install time, when CMAKE_INSTALL_PREFIX holds the prefix actually
# installed to (`cmake --install --prefix P` included), so that the
# pkg-config file and the unit name that prefix rather than the configured one.
# Expects KS_SOURCE_DIR, KS_GEN_DIR, KS_LIBDIR, KS_INCLUDEDIR, KS_SBINDIR, PROJECT_VERSION.

function(ks_under_prefix out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "\${prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

set(KS_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
ks_under_prefix(KS_PC_LIBDIR "${KS_LIBDIR}")
ks_under_prefix(KS_PC_INCLUDEDIR "${KS_INCLUDEDIR}/ksa")
# A program linked against a prefix outside the loader's own folders finds
# the library there at run time too, without LD_LIBRARY_PATH.
if(IS_ABSOLUTE "${KS_LIBDIR}")
  set(KS_FULL_LIBDIR "${KS_LIBDIR}")
else()
  set(KS_FULL_LIBDIR "${CMAKE_INSTALL_PREFIX}/${KS_LIBDIR}")
endif()
set(KS_PC_RPATH "")
if(NOT KS_FULL_LIBDIR MATCHES "^/(usr/)?lib(32|64|x32)?(/[a-z0-9_]+-linux-gnu[a-z0-9_]*)?/?$")
  set(KS_PC_RPATH " -Wl,-rpath,\${libdir}")
endif()
configure_file("${KS_SOURCE_DIR}/packaging/ksintf.pc.in" "${KS_GEN_DIR}/ksintf.pc" @ONLY)

if(IS_ABSOLUTE "${KS_SBINDIR}")
  set(KS_UNIT_SBINDIR "${KS_SBINDIR}")
else()
  set(KS_UNIT_SBINDIR "${CMAKE_INSTALL_PREFIX}/${KS_SBINDIR}")
endif()
configure_file("${KS_SOURCE_DIR}/packaging/ksd.service" "${KS_GEN_DIR}/ksd.service" @ONLY)
