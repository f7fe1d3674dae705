// Recording the shell's lines into a script. Main thread only.
#pragma once

/// Begins a recording into `file` (at most 255 bytes).
void record_start(const char *file);
void record_increment();
/// 1 while recording.
int record_check();
void record_abort();
/// Writes the recorded lines and ends the recording.
void record_commit();
