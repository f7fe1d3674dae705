// From the command line to the mode, and back to an exit status.
#pragma once

/// The whole program. Returns its exit status, the low 8 bits of the mode's result.
int kest_main(int argc, char **argv);
