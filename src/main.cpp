/// The program: one App from start to end.
#include "app.h"
#include "crash_handler.h"

int main(int argc, char** argv)
{
    CrashHandler::install();
    App app;
    return app.run(argc, argv);
}
