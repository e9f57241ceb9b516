# The Java natives of libksintf compile against the JNI headers of a JDK
# only (the library never links the virtual machine); without a JDK they
# are left out. Sets KSINTF_JNI_INCLUDE_DIRS and filters KSINTF_SOURCES.
find_package(JNI)
if(JNI_FOUND)
  set(KSINTF_JNI_INCLUDE_DIRS ${JAVA_INCLUDE_PATH} ${JAVA_INCLUDE_PATH2})
else()
  list(FILTER KSINTF_SOURCES EXCLUDE REGEX "/com_orvo_ksa_common_[^/]*\\.cpp$")
  set(KSINTF_JNI_INCLUDE_DIRS)
endif()
