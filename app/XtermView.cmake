# The terminal renderer: the coordinator's logic (no display) and its Qt
# WebEngine host.
add_library(hl_terminal_host STATIC ${CMAKE_CURRENT_LIST_DIR}/terminal/XtermCoordinator.cpp)
target_include_directories(hl_terminal_host PUBLIC ${CMAKE_CURRENT_LIST_DIR}
  ${CMAKE_CURRENT_LIST_DIR}/terminal)
target_link_libraries(hl_terminal_host PUBLIC hl_terminal Qt6::Core Qt6::Gui)

add_executable(terminal_host_tests ${CMAKE_CURRENT_LIST_DIR}/tests/XtermCoordinatorTest.cpp
  ${CMAKE_SOURCE_DIR}/workspace/tests/QtTestMain.cpp)
target_link_libraries(terminal_host_tests PRIVATE hl_terminal_host GTest::gtest)
set_target_properties(terminal_host_tests PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/app)
gtest_discover_tests(terminal_host_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)

add_library(hl_terminal_view STATIC ${CMAKE_CURRENT_LIST_DIR}/terminal/XtermWebView.cpp
  ${CMAKE_CURRENT_LIST_DIR}/terminal/PreviousShellMenu.cpp
  ${CMAKE_CURRENT_LIST_DIR}/terminal/TerminalDocumentScheme.cpp)
target_link_libraries(hl_terminal_view PUBLIC hl_terminal_host hl_terminal_document
  Qt6::Widgets Qt6::WebEngineWidgets Qt6::WebChannel)
add_dependencies(hl_terminal_view terminal_assets)

# The application's web engine options, so that the pages share one renderer as there.
add_executable(terminal_view_tests ${CMAKE_CURRENT_LIST_DIR}/tests/XtermWebViewTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProcessEnvironment.cpp
  ${CMAKE_SOURCE_DIR}/node/tests/NodeHarness.cpp)
target_include_directories(terminal_view_tests BEFORE PRIVATE ${CMAKE_SOURCE_DIR}/node ${CMAKE_SOURCE_DIR}/node/tests)
target_link_libraries(terminal_view_tests PRIVATE hl_terminal_view hl_node Qt6::Test Qt6::Quick GTest::gtest)
target_compile_definitions(terminal_view_tests PRIVATE
  HL_NODE_EXECUTABLE="$<TARGET_FILE:harborlattice-node>"
  HL_SCREENSHOT_DIR="${CMAKE_BINARY_DIR}/screenshots"
  HL_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
add_dependencies(terminal_view_tests harborlattice-node terminal_assets)
set_target_properties(terminal_view_tests PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/app)
gtest_discover_tests(terminal_view_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 180)
