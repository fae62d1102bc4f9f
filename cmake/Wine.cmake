# Placeholder: Wine test fixture. Replaced by the Wine harness.
function(kvt_run_under_wine test)
endfunction()
