/// The program: one App from start to end.
#include "app.h"

int main(int argc, char** argv)
{
    App app;
    return app.run(argc, argv);
}
