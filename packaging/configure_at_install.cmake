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
configure_file("${KS_SOURCE_DIR}/packaging/ksintf.pc.in" "${KS_GEN_DIR}/ksintf.pc" @ONLY)

if(IS_ABSOLUTE "${KS_SBINDIR}")
  set(KS_UNIT_SBINDIR "${KS_SBINDIR}")
else()
  set(KS_UNIT_SBINDIR "${CMAKE_INSTALL_PREFIX}/${KS_SBINDIR}")
endif()
configure_file("${KS_SOURCE_DIR}/packaging/ksd.service" "${KS_GEN_DIR}/ksd.service" @ONLY)
