# Which machine the libraries are for: ZELMEDIA_MULTIARCH is the name of its folders, such as i386-linux-gnu, where the
# compiler has one, ZELMEDIA_ARCHITECTURE Debian's name of it. Before anything includes GNUInstallDirs.
set(print_multiarch ${CMAKE_CXX_COMPILER} ${CMAKE_CXX_COMPILER_ARG1})
if(ZELMEDIA_M32)
  list(APPEND print_multiarch -m32)
endif()
if(CMAKE_CXX_COMPILER_TARGET)
  list(APPEND print_multiarch --target=${CMAKE_CXX_COMPILER_TARGET})
endif()
execute_process(COMMAND ${print_multiarch} -print-multiarch OUTPUT_VARIABLE ZELMEDIA_MULTIARCH
  ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)

if(ZELMEDIA_M32)
  set(machine i686)
else()
  set(machine ${CMAKE_SYSTEM_PROCESSOR})
endif()
if(machine MATCHES "^(x86_64|amd64)$")
  set(ZELMEDIA_ARCHITECTURE amd64)
elseif(machine MATCHES "^(i[3-6]86|x86)$")
  set(ZELMEDIA_ARCHITECTURE i386)
elseif(machine MATCHES "^(aarch64|arm64)$")
  set(ZELMEDIA_ARCHITECTURE arm64)
elseif(ZELMEDIA_MULTIARCH STREQUAL arm-linux-gnueabihf)
  set(ZELMEDIA_ARCHITECTURE armhf)
else()
  set(ZELMEDIA_ARCHITECTURE ${machine})
endif()

# All architectures stand side by side, with any prefix, unless somebody wants it otherwise.
if(DEFINED CMAKE_INSTALL_LIBDIR)
  # GNUInstallDirs takes it as it is.
elseif(ZELMEDIA_MULTIARCH)
  set(CMAKE_INSTALL_LIBDIR lib/${ZELMEDIA_MULTIARCH} CACHE PATH "Libraries, below the prefix")
elseif(ZELMEDIA_M32)
  set(CMAKE_INSTALL_LIBDIR lib CACHE PATH "Libraries, below the prefix") # where others have lib64, too
endif()
