#include "startup.h"

int main(int argc, char** argv)
{
    return kvManagerMain(argc, argv);
}
