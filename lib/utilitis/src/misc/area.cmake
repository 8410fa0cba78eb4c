# The default rule, plus the link option that keeps the fatal-error handler
# in every program: nothing calls into its object, which installs itself from
# a static initialiser, so a static library would otherwise leave it out.
file(GLOB area_sources CONFIGURE_DEPENDS ${area_dir}/*.cpp)
target_sources(karu PRIVATE ${area_sources})
target_link_options(karu INTERFACE "LINKER:--undefined=karu_error_handler_anchor")
file(GLOB area_tests CONFIGURE_DEPENDS ${area_dir}/tests/*.cpp)
karu_add_tests(${area} ${area_tests})

# The handler really is in the tool and in a test program that never names it.
if(KARU_BUILD_TESTS AND CMAKE_NM)
  foreach(program ostrel karu_string_tests)
    add_test(NAME errhandler.linked_into.${program}
             COMMAND ${CMAKE_NM} $<TARGET_FILE:${program}>)
    set_tests_properties(errhandler.linked_into.${program} PROPERTIES
                         PASS_REGULAR_EXPRESSION " [BD] karu_error_handler_anchor\n" LABELS misc)
  endforeach()
endif()
