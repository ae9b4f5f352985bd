# Installs the build into a fresh directory and checks that the pkg-config file found there
# points at the headers and libraries installed beside it: a program including a public
# header compiles with its --cflags, and --libs names a directory holding the library.
# Run as: cmake -DBUILD_DIR=<build> -DCXX=<compiler> -P check_install.cmake
set(prefix ${BUILD_DIR}/install-check)
file(REMOVE_RECURSE ${prefix})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
  RESULT_VARIABLE failed OUTPUT_QUIET)
if(failed)
  message(FATAL_ERROR "cmake --install failed")
endif()
file(GLOB_RECURSE pc_files ${prefix}/*/VornTeskPaymentsAddonApple.pc)
list(LENGTH pc_files count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one installed .pc file, found: ${pc_files}")
endif()
get_filename_component(pc_dir ${pc_files} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
foreach(what cflags libs)
  execute_process(COMMAND pkg-config --${what} VornTeskPaymentsAddonApple
    OUTPUT_VARIABLE ${what} OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "pkg-config --${what} failed")
  endif()
endforeach()
string(REGEX MATCH "-L([^ ]+)" found "${libs}")
if(NOT EXISTS "${CMAKE_MATCH_1}/libVornTeskPaymentsAddonApple.so")
  message(FATAL_ERROR "--libs gives '${libs}', which holds no libVornTeskPaymentsAddonApple.so")
endif()
file(WRITE ${prefix}/uses_header.cpp "#include \"bridge/apple_store_kit_service_plugin.h\"\nint main() {}\n")
separate_arguments(flags UNIX_COMMAND "${cflags}")
execute_process(COMMAND ${CXX} ${flags} -fsyntax-only ${prefix}/uses_header.cpp
  RESULT_VARIABLE failed ERROR_VARIABLE errors)
if(failed)
  message(FATAL_ERROR "a public header does not compile with --cflags '${cflags}':\n${errors}")
endif()
file(REMOVE_RECURSE ${prefix})
