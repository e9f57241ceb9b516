# The Java natives of libksintf compile against the JNI headers of a JDK
# only: the library never links the virtual machine, and a headless JDK has
# no AWT, so only the headers are looked for. A library without its natives
# is not the library: no headers, no build. Sets KSINTF_JNI_INCLUDE_DIRS.
find_package(Java 11 COMPONENTS Development)
set(KSINTF_JNI_HINTS)
if(DEFINED ENV{JAVA_HOME})
  list(APPEND KSINTF_JNI_HINTS $ENV{JAVA_HOME}/include)
endif()
if(Java_JAVAC_EXECUTABLE)
  # javac is a link into the JDK: its real folder's parent holds include/.
  get_filename_component(KSINTF_JAVAC_REAL ${Java_JAVAC_EXECUTABLE} REALPATH)
  get_filename_component(KSINTF_JDK_HOME ${KSINTF_JAVAC_REAL} DIRECTORY)
  get_filename_component(KSINTF_JDK_HOME ${KSINTF_JDK_HOME} DIRECTORY)
  list(APPEND KSINTF_JNI_HINTS ${KSINTF_JDK_HOME}/include)
endif()
find_path(KSINTF_JNI_H jni.h HINTS ${KSINTF_JNI_HINTS} PATHS /usr/lib/jvm/default-java/include)
if(NOT KSINTF_JNI_H)
  message(FATAL_ERROR "jni.h not found: libksintf's Java natives need a JDK's headers. "
                      "Install one (Debian: default-jdk-headless) or set JAVA_HOME.")
endif()
find_path(KSINTF_JNI_MD_H jni_md.h HINTS ${KSINTF_JNI_H}/linux NO_DEFAULT_PATH)
if(NOT KSINTF_JNI_MD_H)
  message(FATAL_ERROR "jni_md.h not found beside ${KSINTF_JNI_H}/jni.h: the JDK's headers are incomplete")
endif()
set(KSINTF_JNI_INCLUDE_DIRS ${KSINTF_JNI_H} ${KSINTF_JNI_MD_H})
