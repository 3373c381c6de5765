// Process entry point; everything else lives in the agent library so that tests can link it.
#include "main.h"

int main(int argc, char** argv)
{
    return vsk_main(argc, argv);
}
