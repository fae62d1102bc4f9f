# Wine harness for the tests (placeholder; to be filled in).
# kvt_run_under_wine(test): a test of the Windows build, run through the wine emulator,
#   with the test run's Wine prefix made first. No-op in the Linux build.
# kvt_requires_wine_prefix(test): a test of the Linux build that starts Windows programs
#   under Wine itself; gets WINEPREFIX and WINEDEBUG in its environment and the prefix made first.
function(kvt_run_under_wine test)
endfunction()
function(kvt_requires_wine_prefix test)
endfunction()
