// Recording the shell's lines into a script. Main thread only.
#pragma once

#include <string_view>

void record_start(const char *file);
/// A line of the shell is run.
void record_increment();
/// True while recording.
bool record_check();
void record_abort();
/// Writes as many of the shell's newest lines as were run, and `behind` them, and ends the recording.
void record_commit(std::string_view behind = {});
