#include "TestHelpers.h"

#include "foundation/DException.h"
#include "foundation/image/DDataTypes.h"

using namespace norvexa;
using namespace norvexa::datatypes;

TEST(DataTypes, TypeStrNamesEveryClassAndRefusesOthers)
{
    EXPECT_EQ(typeStr(NONE), "NONE");
    EXPECT_EQ(typeStr(BOOL), "BOOL");
    EXPECT_EQ(typeStr(CHAR), "CHAR");
    EXPECT_EQ(typeStr(UINT), "UINT");
    EXPECT_EQ(typeStr(INT), "INT");
    EXPECT_EQ(typeStr(FLOAT), "FLOAT");
    EXPECT_THROW_MSG(typeStr(static_cast<Type>(6)), DNotImplementedException, "Unknown data type");
    EXPECT_THROW_MSG(typeStr(static_cast<Type>(-1)), DNotImplementedException, "Unknown data type");
}
