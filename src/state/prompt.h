// The prompt. Main thread only.
#pragma once

/// Rebuilds the prompt from login, mode and current path.
void prompt_update_path();
/// Sets the mode word behind the program's name (null: none) and rebuilds the prompt.
void prompt_update_postfix(const char *word);
/// The continuation prompt "> " (flag set), or the usual one.
void prompt_set_incompleted(int flag);
/// Borrowed; changes with every update.
const char *prompt_get();
