// The connection record: appends, emitters, status line, log.
#include <cerrno>
#include <climits>
#include <cstring>

#include "fixture.h"

using Record = HostTest;

TEST_F(Record, AppendsInOrderAndEndsAtNul)
{
    EXPECT_EQ(response(), "(null)");
    EXPECT_EQ(conn_send2("abc", 2), 0);
    EXPECT_EQ(conn_send2("x\0y", 3), 0);
    EXPECT_EQ(conn_send2("z", 1), 0);
    EXPECT_EQ(response(), "abxz");
}

TEST_F(Record, MeasuresATextThatSomebodyElsePutThere)
{
    conn_send2("long enough", 11);
    char *other = strdup("ab");
    free(the_connection.response);
    the_connection.response = other;
    conn_send2("c", 1);
    EXPECT_EQ(response(), "abc");
}

TEST_F(Record, KeepsItsTextsWhenMemoryRunsOut)
{
    conn_send2("kept", 4);
    error_print("kept\n");
    simhost_put("/proc/any", "", 0);
    simhost_fail("malloc", 1, ENOMEM, INT_MAX);
    EXPECT_EQ(conn_send2("lost", 4), ENOMEM);
    EXPECT_EQ(conn_send_XML_string("A", 0, "b"), ENOMEM);
    EXPECT_EQ(error_print("lost\n"), ENOMEM);
    simhost_fail("malloc", 2, ENOMEM, 1); // the temporary is had, the append fails
    EXPECT_EQ(conn_send_XML_string("A", 0, "b"), ENOMEM);
    EXPECT_EQ(response(), "kept");
    EXPECT_EQ(logged(), "kept\n");
}

TEST_F(Record, CutsATagLineAt127Characters)
{
    conn_send_XML_tag(std::string(123, 'x').c_str(), 1, 1); // 127 characters, line feed included
    EXPECT_EQ(response(), " <" + std::string(123, 'x') + ">\n");
    conn_free(&the_connection);
    conn_send_XML_tag(std::string(124, 'x').c_str(), 1, 1);
    EXPECT_EQ(response(), " <" + std::string(124, 'x') + ">");
}

TEST_F(Record, EscapesTextContent)
{
    conn_send_XML_string("A", 2, "<a href=\"x\">'&amp;\x01\xff</a>");
    conn_send_XML_string("B", 0, "");
    EXPECT_EQ(response(), "  <A>&lt;a href=&quot;x&quot;&gt;&apos;&amp;amp;\x01\xff&lt;/a&gt;</A>\n"
                          "<B></B>\n");
    EXPECT_EQ(conn_send_XML_string("A", INT_MAX - 1, "x"), ENOMEM);
}

TEST_F(Record, EndsTheSourcesOfItsCall)
{
    global_source_state = 1;
    new_conn();
    EXPECT_TRUE(is_asked(CURRENT));
    conn_free(&the_connection);
    EXPECT_FALSE(is_asked(CURRENT)) << "by an exported function outside of a call";
}

TEST_F(Record, StatusLineComesFirstAndAlone)
{
    conn_send2("old", 3);
    EXPECT_EQ(conn_send_response2(RSP_OK, "%s", "Success"), 0);
    EXPECT_EQ(response(), "Status: 200 Success\n");
    EXPECT_EQ(logged(), "? conn_send_response2: response string should be NULL, but was: old\n");
    EXPECT_EQ(conn_send_response2(RSP_OK, nullptr), 0);
    EXPECT_EQ(conn_close(&the_connection), 0);
    EXPECT_EQ(response(), "Status: 200 Success\n");
}
