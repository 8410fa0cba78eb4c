# The default rule, plus what the test of a program linked by hand needs:
# the compiler, its flags, the library and its headers. The fatal-error
# handler, which nothing calls into, stays in every program because the
# library's common objects refer to it (see misc/errhandler.h).
file(GLOB area_sources CONFIGURE_DEPENDS ${area_dir}/*.cpp)
target_sources(karu PRIVATE ${area_sources})
file(GLOB area_tests CONFIGURE_DEPENDS ${area_dir}/tests/*.cpp)
karu_add_tests(${area} ${area_tests})
if(TARGET karu_misc_tests)
  target_compile_definitions(karu_misc_tests PRIVATE
    KARU_TEST_CXX="${CMAKE_CXX_COMPILER}"
    KARU_TEST_CXX_FLAGS="${CMAKE_CXX_FLAGS} ${CMAKE_EXE_LINKER_FLAGS}"
    KARU_TEST_LIBRARY="$<TARGET_FILE:karu>"
    KARU_TEST_INCLUDE="${CMAKE_CURRENT_SOURCE_DIR}/include")
endif()

# The handler really is in the tool and in a test program that never names it.
if(KARU_BUILD_TESTS AND CMAKE_NM)
  foreach(program ostrel karu_string_tests)
    add_test(NAME errhandler.linked_into.${program}
             COMMAND ${CMAKE_NM} $<TARGET_FILE:${program}>)
    set_tests_properties(errhandler.linked_into.${program} PROPERTIES
                         PASS_REGULAR_EXPRESSION " [BD] karu_error_handler_anchor\n" LABELS misc)
  endforeach()
endif()
