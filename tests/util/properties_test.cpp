#include "host/Properties.h"

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <string>

namespace {

std::string get(const char* key, const char* def) {
    char value[PROPERTY_VALUE_MAX];
    int len = property_get(key, value, def);
    EXPECT_EQ(len, static_cast<int>(std::string(value).size()));
    return value;
}

TEST(HostProperties, UnsetEmptyClearedSetLongAndLoadedValues) {
    host::clearProperties();
    EXPECT_EQ(get("debug.camera.qlmr.EIS.log", "0"), "0");
    EXPECT_EQ(get("debug.camera.qlmr.EIS.log", nullptr), "");
    host::setProperty("persist.qlmr.EIS.vid.startUs", "250000");
    EXPECT_EQ(get("persist.qlmr.EIS.vid.startUs", "0"), "250000");
    host::setProperty("persist.qlmr.EIS.vid.startUs", "");  // empty reads as unset
    EXPECT_EQ(get("persist.qlmr.EIS.vid.startUs", "7"), "7");
    host::setProperty("a", "1");
    host::clearProperty("a");
    EXPECT_EQ(get("a", "d"), "d");
    host::setProperty("k", std::string(200, 'x'));  // cut to the value limit
    EXPECT_EQ(get("k", nullptr).size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
    // Loading parses pairs and rejects malformed text whole.
    host::clearProperties();
    EXPECT_TRUE(host::loadProperties("a=1;b=two\nc=3=x"));
    EXPECT_EQ(get("a", nullptr), "1");
    EXPECT_EQ(get("b", nullptr), "two");
    EXPECT_EQ(get("c", nullptr), "3=x");
    EXPECT_FALSE(host::loadProperties("d=4;novalue"));
    EXPECT_EQ(get("d", "unset"), "unset");
    EXPECT_FALSE(host::loadProperties("=5"));
}

}  // namespace
