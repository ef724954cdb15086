# The terminal document: its asset files copied from web/node_modules into the
# build tree's resources and installed beside the application, the library that
# finds them and composes the document, and the document's tests (composition
# in GoogleTest, behaviour in a real Chromium).

set(_hl_node_modules ${CMAKE_SOURCE_DIR}/web/node_modules)
set(_hl_terminal_resources ${CMAKE_BINARY_DIR}/resources/Terminal)
set(_hl_terminal_asset_sources
  ${_hl_node_modules}/@xterm/xterm/lib/xterm.js
  ${_hl_node_modules}/@xterm/xterm/css/xterm.css
  ${_hl_node_modules}/@xterm/addon-fit/lib/addon-fit.js
  ${_hl_node_modules}/@xterm/addon-web-links/lib/addon-web-links.js
  ${_hl_node_modules}/@xterm/addon-search/lib/addon-search.js
  ${_hl_node_modules}/@xterm/addon-unicode11/lib/addon-unicode11.js
)
if(NOT EXISTS ${_hl_node_modules}/@xterm/xterm/lib/xterm.js)
  message(WARNING "web/node_modules has no xterm.js: run scripts/install-deps.sh before building terminal_assets")
endif()

# Each asset keeps its file name, which is the name the document asks for.
set(_hl_terminal_assets)
foreach(_source IN LISTS _hl_terminal_asset_sources)
  get_filename_component(_name ${_source} NAME)
  add_custom_command(
    OUTPUT ${_hl_terminal_resources}/${_name}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${_hl_terminal_resources}
    COMMAND ${CMAKE_COMMAND} -E copy ${_source} ${_hl_terminal_resources}/${_name}
    DEPENDS ${_source}
    COMMENT "Copying terminal asset ${_name}"
    VERBATIM)
  list(APPEND _hl_terminal_assets ${_hl_terminal_resources}/${_name})
endforeach()
add_custom_target(terminal_assets ALL DEPENDS ${_hl_terminal_assets})
install(FILES ${_hl_terminal_assets} DESTINATION share/harborlattice/Terminal)

# Finding the assets and composing the document: plain text, no web view.
add_library(hl_terminal_document STATIC
  ${CMAKE_CURRENT_SOURCE_DIR}/TerminalAssetLocator.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/XtermView.cpp
)
target_include_directories(hl_terminal_document
  PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}
  PRIVATE ${CMAKE_SOURCE_DIR}/runtime)

harborlattice_test(terminal_document_tests
  SOURCES
    ${CMAKE_CURRENT_SOURCE_DIR}/tests/TerminalAssetLocatorTest.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/tests/XtermViewTest.cpp
    ${CMAKE_SOURCE_DIR}/runtime/tests/TestSupport.cpp
  LIBRARIES hl_terminal_document)
target_include_directories(terminal_document_tests PRIVATE ${CMAKE_SOURCE_DIR}/runtime/tests)
target_compile_definitions(terminal_document_tests PRIVATE
  HARBORLATTICE_BUILD_DIR="${CMAKE_BINARY_DIR}"
  HARBORLATTICE_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
set_target_properties(terminal_document_tests PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/terminal_document)
add_dependencies(terminal_document_tests terminal_assets)

# Prints the document composed from the packaged assets. It sits at the root of
# the build tree, so it finds resources/Terminal beside itself.
add_executable(terminal_document_dump ${CMAKE_SOURCE_DIR}/web/tests/document_dump.cpp)
target_link_libraries(terminal_document_dump PRIVATE hl_terminal_document)
add_dependencies(terminal_document_dump terminal_assets)

# The document in Chromium; skipped (77) only when /usr/bin/chromium is missing.
add_test(NAME terminal_document_browser
  COMMAND ${CMAKE_SOURCE_DIR}/scripts/web-test.sh --dump $<TARGET_FILE:terminal_document_dump>
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
set_tests_properties(terminal_document_browser PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
