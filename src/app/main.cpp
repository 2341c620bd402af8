#include "app/run_driver.hpp"

int main(int argumentCount, char** arguments) {
    return quenmark_main(argumentCount, arguments);
}
