// The end of a tool's run.
#pragma once

// The exit code of a run that wanted this one. A result that could not be written is a failure, whatever the action
// thought of it: a full disk or a closed output must not look like a clean report. Says so on standard error.
int finish_output(int code);
