#include "foundation/image/DDataTypes.h"

#include <iostream>

int main()
{
    std::cout << "norvexa demo: " << norvexa::datatypes::typeStr(norvexa::datatypes::UINT) << "\n";
    return 0;
}
