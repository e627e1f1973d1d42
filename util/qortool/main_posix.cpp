#include "entry.h"

#include "qor/qor.h"

int main(int argc, char** argv) {
    return qor::or_end([=] { return run_tool(argc, argv); });
}
