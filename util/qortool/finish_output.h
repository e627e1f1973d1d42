// The end of a run of either tool.
#pragma once

// Returns the exit code for a run whose action returned `code`. If output could not be written, the run has failed even
// if the action succeeded: a full disk or a closed output must not look like a clean report. Reports the failure on
// standard error.
int finish_output(int code);
