# The default rule, and the store's tests run three times: in a UTF-8
# locale, in the C locale and in a multi-byte locale that is not UTF-8
# (EUC-JP), since the store keeps its text in the system's encoding and
# must give back every byte of it in each. The EUC-JP locale is made with
# localedef in the build tree when the machine has the locale sources; the
# tests skip, saying so, where it could not be made.
file(GLOB area_sources CONFIGURE_DEPENDS ${area_dir}/*.cpp)
target_sources(karu PRIVATE ${area_sources})
file(GLOB area_tests CONFIGURE_DEPENDS ${area_dir}/tests/*.cpp)
if(KARU_BUILD_TESTS AND area_tests)
  add_executable(karu_${area}_tests ${area_tests})
  target_link_libraries(karu_${area}_tests PRIVATE karu GTest::gtest GTest::gtest_main GTest::gmock)
  target_include_directories(karu_${area}_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  set(locale_dir ${CMAKE_CURRENT_BINARY_DIR}/locales)
  target_compile_definitions(karu_${area}_tests PRIVATE KARU_TEST_LOCALE_DIR="${locale_dir}")
  add_test(NAME registry.locale.made
           COMMAND sh -c "mkdir -p '${locale_dir}' && localedef -c -i ja_JP -f EUC-JP '${locale_dir}/ja_JP.eucJP' >/dev/null 2>&1; exit 0")
  set_tests_properties(registry.locale.made PROPERTIES FIXTURES_SETUP karu_locales LABELS ${area} TIMEOUT 120)
  karu_discover_tests(${area} "" "LC_ALL=C.UTF-8")
  karu_discover_tests(${area} "C_locale." "LC_ALL=C")
  karu_discover_tests(${area} "eucJP_locale." "LC_ALL=ja_JP.eucJP" FIXTURES_REQUIRED karu_locales)
endif()
