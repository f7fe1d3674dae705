#include "main/start.h"

int main(int argc, char **argv)
{
    return kest_main(argc, argv);
}
