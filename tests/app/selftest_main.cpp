// The application built exactly as `vorlin` builds it, driven by the checks of SelfTest.h
// instead of an operator.
#include "SelfTest.h"
#include "app/Application.h"

int main(int argc, char** argv) {
    Application app(argc, argv);
    return SelfTest::run(app.model(), app.window());
}
