// The fuzz build's Android log and error log. The log drops every line below fatal, so that a long run
// does not drown in the diagnostics that bad input is meant to produce, and counts the lines a harness
// watches; fatal lines still go to stderr, ahead of the abort they announce. The error log only counts
// its entries by code: rewriting a file per entry would otherwise be most of a run's cost.
#pragma once

#include <string>

// Number of lines so far whose message starts with `prefix`. The first call for a prefix starts
// watching it and returns 0.
int QuietLogCount(const std::string& prefix);

// Number of error log entries with `code` so far.
int QuietErrorLogCount(int code);
