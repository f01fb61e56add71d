# The lock-annotation check: clang's -Wthread-safety over every target of the service, its client and
# its tools. std::mutex and std::lock_guard carry the annotations only in libc++ built with
# _LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS, so this build uses libc++; GoogleTest and Google Benchmark
# come built against libstdc++, so tests and benchmarks are left out.
if(KOVA_THREAD_SAFETY)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KOVA_THREAD_SAFETY needs clang (-DCMAKE_CXX_COMPILER=clang++)")
  endif()
  set(KOVA_BUILD_TESTS OFF CACHE BOOL "" FORCE)
  set(KOVA_BUILD_BENCH OFF CACHE BOOL "" FORCE)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-stdlib=libc++>
                      $<$<COMPILE_LANGUAGE:CXX>:-D_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS>
                      -Wthread-safety -Werror=thread-safety)
  add_link_options($<$<LINK_LANGUAGE:CXX>:-stdlib=libc++>)
endif()
