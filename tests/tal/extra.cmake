# The translation test loads a French catalogue compiled from tests/tal/data/fr.po at build time.
find_program(MSGFMT msgfmt REQUIRED)
set(_locale_dir ${CMAKE_CURRENT_BINARY_DIR}/locale)
set(_mo ${_locale_dir}/fr/LC_MESSAGES/ziputil-test.mo)
add_custom_command(OUTPUT ${_mo}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${_locale_dir}/fr/LC_MESSAGES
  COMMAND ${MSGFMT} --check -o ${_mo} ${CMAKE_CURRENT_SOURCE_DIR}/tal/data/fr.po
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/tal/data/fr.po
  COMMENT "Compiling the French test catalogue")
add_custom_target(tal_test_catalogue DEPENDS ${_mo})
add_dependencies(tal_error_translation_test tal_test_catalogue)
target_compile_definitions(tal_error_translation_test PRIVATE ZIPUTIL_TEST_LOCALE_DIR="${_locale_dir}")
