// Prints the JSON Schema of preset files, as `shotmentor-phone schema` does: a program that is built in no time.
#include <iostream>
#include <nlohmann/json.hpp>

#include "JsonText.h"
#include "Schema.h"

int main() {
    std::cout << desk::text_of_json(desk::preset_schema());
    return std::cout.flush() ? 0 : 1;
}
