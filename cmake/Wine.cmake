# Wine harness for the tests.
# kvt_run_under_wine(test): a test of the Windows build, run through the wine emulator,
#   with the test run's Wine prefix made first. No-op in the Linux build.
# kvt_requires_wine_prefix(test): a test of the Linux build that starts Windows programs
#   under Wine itself; gets WINEPREFIX and WINEDEBUG in its environment and the prefix made
#   first. No-op when wine is not installed (such tests skip themselves).
#
# The prefix lives in the build folder, so tests never touch the user's own ~/.wine. A CTest
# setup fixture makes it and starts a persistent wineserver (a cold Wine start costs seconds
# per test); the cleanup fixture stops the server again.

set(KVT_WINE_PREFIX "${CMAKE_BINARY_DIR}/wineprefix")
set(KVT_WINE_PREFIX_SCRIPT "${CMAKE_CURRENT_LIST_DIR}/wine-prefix.sh")

if(NOT WIN32)
  find_program(KVT_WINE_PROGRAM wine)
  find_program(KVT_WINESERVER_PROGRAM wineserver)
endif()

# The fixture's two tests, defined once, by the first test that needs them.
function(_kvt_define_wine_prefix_fixture)
  get_property(defined GLOBAL PROPERTY KVT_WINE_PREFIX_FIXTURE)
  if(defined)
    return()
  endif()
  set_property(GLOBAL PROPERTY KVT_WINE_PREFIX_FIXTURE ON)
  add_test(NAME wine_prefix_up COMMAND sh "${KVT_WINE_PREFIX_SCRIPT}" up "${KVT_WINE_PREFIX}")
  add_test(NAME wine_prefix_down COMMAND sh "${KVT_WINE_PREFIX_SCRIPT}" down "${KVT_WINE_PREFIX}")
  set_tests_properties(wine_prefix_up PROPERTIES FIXTURES_SETUP wine_prefix TIMEOUT 600)
  set_tests_properties(wine_prefix_down PROPERTIES FIXTURES_CLEANUP wine_prefix TIMEOUT 60)
endfunction()

function(_kvt_use_wine_prefix test)
  _kvt_define_wine_prefix_fixture()
  set_property(TEST ${test} APPEND PROPERTY FIXTURES_REQUIRED wine_prefix)
  set_property(TEST ${test} APPEND PROPERTY ENVIRONMENT
               "WINEPREFIX=${KVT_WINE_PREFIX}" "WINEDEBUG=-all")
endfunction()

function(kvt_run_under_wine test)
  if(WIN32)
    _kvt_use_wine_prefix(${test})
  endif()
endfunction()

function(kvt_requires_wine_prefix test)
  if(NOT WIN32 AND KVT_WINE_PROGRAM AND KVT_WINESERVER_PROGRAM)
    _kvt_use_wine_prefix(${test})
  endif()
endfunction()
