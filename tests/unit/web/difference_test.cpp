// SPDX-License-Identifier: Apache-2.0
#include "difference.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ravo::web::difference;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *saved = "!\nip dhcp relay\n!\ninterface vlan10\n ip dhcp relay address 192.0.2.1\n!\nend\n";

TEST(Difference, OfTheSameIsNothing) {
    EXPECT_THAT(difference(saved, saved), IsEmpty());
    EXPECT_THAT(difference("", ""), IsEmpty());
    EXPECT_THAT(difference("! a comment\n\n", "!\n"), IsEmpty());
}

TEST(Difference, NamesTheSectionOfALine) {
    EXPECT_THAT(difference(saved, "ip dhcp relay hops 5\n!\ninterface vlan10\n ip dhcp relay address 192.0.2.2\n"),
                ElementsAre("-ip dhcp relay", "+ip dhcp relay hops 5", " interface vlan10",
                            "- ip dhcp relay address 192.0.2.1", "+ ip dhcp relay address 192.0.2.2"));
}

TEST(Difference, TellsSectionsThatComeAndGo) {
    EXPECT_THAT(difference(saved, "ip dhcp relay\n"),
                ElementsAre(" interface vlan10", "- ip dhcp relay address 192.0.2.1"));
    EXPECT_THAT(difference("", "interface vlan9\r\n ip dhcp relay address 192.0.2.9\r\n"),
                ElementsAre(" interface vlan9", "+ ip dhcp relay address 192.0.2.9"));
}

TEST(Difference, OfThousandsOfInterfacesIsQuick) {
    std::string text;
    for (int i = 1; i <= 4094; ++i)
        text += "interface vlan" + std::to_string(i) + "\n ip dhcp relay address 192.0.2.1\n";
    EXPECT_THAT(difference(text, text + "interface vlan10\n ip dhcp relay information trusted\n"),
                ElementsAre(" interface vlan10", "+ ip dhcp relay information trusted"));
}

}  // namespace
