#pragma once

/// One byte for each mutant, set once the program comes to its place; and the number of the one that is in force, 0
/// for none. Any thread.
extern unsigned char *kest_reached_mutants;
extern unsigned kest_chosen_mutant;

inline bool kest_mutant(unsigned number)
{
    kest_reached_mutants[number] = 1;
    return kest_chosen_mutant == number;
}
