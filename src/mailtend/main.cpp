// mailtend: one command per run; the exit status is the panel's answer.
#include "mailtend/do_main.h"

int main(int argc, char **argv)
{
    return zarnet::mail::postfix::mailtend_commands::runGuarded(do_main, argc, argv);
}
