# Makes the targets that link `target` search `root` for headers.
function(tarnik_include_directory target root)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL INTERFACE_LIBRARY)
    target_include_directories(${target} INTERFACE ${root})
  else()
    target_include_directories(${target} PUBLIC ${root})
  endif()
endfunction()

# tarnik_headers(TARGET FOLDER): makes the headers of a folder available to all that link the target.
# They are included by their path from the top of the project ("base/log.h"). Nothing else finds
# them: each folder has an include directory of its own, with a symbolic link to the folder.
function(tarnik_headers target folder)
  set(root ${PROJECT_BINARY_DIR}/include/${target})
  cmake_path(GET folder PARENT_PATH parent)
  file(MAKE_DIRECTORY ${root}/${parent})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${root}/${folder} SYMBOLIC)
  tarnik_include_directory(${target} ${root})
endfunction()

# tarnik_public_headers(TARGET FOLDER HEADER...): as tarnik_headers, for these headers only.
function(tarnik_public_headers target folder)
  set(root ${PROJECT_BINARY_DIR}/include/public_${target})
  file(MAKE_DIRECTORY ${root}/${folder})
  foreach(header IN LISTS ARGN)
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder}/${header} ${root}/${folder}/${header} SYMBOLIC)
  endforeach()
  tarnik_include_directory(${target} ${root})
endfunction()

# Compiles the files of a test without optimisation, which is quicker. The code under test is in
# libraries. All tests share one precompiled header, so they are compiled with the same options.
function(tarnik_quick_compile target)
  target_compile_options(${target} PRIVATE -O0)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
endfunction()

# tarnik_test(NAME file.cc... [LINKS target...] [ROOT [PAIR] [DRIVER frames]] [SERIAL] [LONG]
#             [TIMEOUT seconds] [ARGS arg...])
# Adds a GoogleTest program and its CTest entry.
#   ROOT     runs it in a private root, with its own copy of the daemon's fixed paths
#   PAIR     needs a pair of network interfaces there
#   DRIVER   preloads the driver stand-in with the group "brund" and these frames (SIZExCOUNT)
#   SERIAL   runs no other test at the same time
#   LONG     gives it the label "long": ./run-tests leaves it out, CI runs it
function(tarnik_test name)
  if(NOT TARNIK_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 T "ROOT;PAIR;SERIAL;LONG" "DRIVER;TIMEOUT" "LINKS;ARGS")
  add_executable(${name} ${T_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${T_LINKS} test_support test_main GTest::gmock)
  tarnik_quick_compile(${name})
  target_precompile_headers(${name} REUSE_FROM test_main)
  set(in_c ${T_UNPARSED_ARGUMENTS})
  list(FILTER in_c INCLUDE REGEX "\\.c$")
  set_source_files_properties(${in_c} PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
  set(command $<TARGET_FILE:${name}> ${T_ARGS})
  if(T_DRIVER)
    set(command sh ${PROJECT_SOURCE_DIR}/platform/zorvik/on-the-driver $<TARGET_FILE:zorvikctl>
        $<TARGET_FILE:zorvik_preload> ${T_DRIVER} ${command})
    add_dependencies(${name} zorvikctl zorvik_preload)
  endif()
  if(T_ROOT)
    set(pair)
    if(T_PAIR)
      set(pair --pair)
    endif()
    set(command ${PROJECT_SOURCE_DIR}/platform/private-root/private-root
        --build ${PROJECT_BINARY_DIR} --unavailable 77 ${pair} -- ${command})
  endif()
  add_test(NAME ${name} COMMAND ${command})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT} SKIP_RETURN_CODE 77)
  if(TARNIK_DATA)
    set_tests_properties(${name} PROPERTIES ENVIRONMENT TARNIK_DATA=${TARNIK_DATA})
  endif()
  if(T_LONG)
    set_tests_properties(${name} PROPERTIES LABELS long)
  endif()
  if(T_SERIAL)
    set_tests_properties(${name} PROPERTIES RUN_SERIAL TRUE)
  endif()
endfunction()
