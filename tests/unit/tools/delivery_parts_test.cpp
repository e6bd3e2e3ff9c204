#include "tools/autoresponder/headers.h"
#include "tools/deliver/qmail_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using deliver::QmailLine;

TEST(QmailLine, Classification)
{
    struct Case {
        std::string line;
        QmailLine::Kind kind;
        std::vector<std::string> words;
        std::string target;
    };
    const std::vector<Case> cases = {
        {"| /usr/bin/deliverquota ./Maildir", QmailLine::QuotaMaildir,
         {"/usr/bin/deliverquota", "./Maildir"}, ""},
        {"|/usr/bin/deliverquota  ./Maildir \r", QmailLine::QuotaMaildir,
         {"/usr/bin/deliverquota", "./Maildir"}, ""},
        // quota delivery to another folder is an ordinary program
        {"| /usr/bin/deliverquota ./Maildir/.Spam", QmailLine::Program,
         {"/usr/bin/deliverquota", "./Maildir/.Spam"}, ""},
        {"| true", QmailLine::Program, {"true"}, ""},
        {"|\tfilter -x\targ", QmailLine::Program, {"filter", "-x", "arg"}, ""},
        {"| filter > /tmp/x", QmailLine::Unrunnable, {}, ""},
        {"| filter $HOME", QmailLine::Unrunnable, {}, ""},
        {"| echo 'a b'", QmailLine::Unrunnable, {}, ""},
        {"| a; b", QmailLine::Unrunnable, {}, ""},
        {"| a | b", QmailLine::Unrunnable, {}, ""},
        {"|   ", QmailLine::Unrunnable, {}, ""},
        {"./Maildir/", QmailLine::Maildir, {}, "./Maildir/"},
        {"./mbox", QmailLine::Unsupported, {}, "./mbox"},
        {"&boss@example.org", QmailLine::Forward, {}, "boss@example.org"},
        {"boss@example.org", QmailLine::Forward, {}, "boss@example.org"},
        {"# comment", QmailLine::Ignore, {}, ""},
        {"  ", QmailLine::Ignore, {}, ""},
        {"-weird", QmailLine::Unsupported, {}, ""},
    };
    for (const Case &c : cases) {
        const QmailLine got = deliver::classifyQmailLine(c.line);
        EXPECT_EQ(got.kind, c.kind) << c.line;
        EXPECT_EQ(got.words, c.words) << c.line;
        EXPECT_EQ(got.target, c.target) << c.line;
    }
}

TEST(AutoresponderHeaders, WhenAReplyIsOwed)
{
    const std::string to = "To: Info <INFO@example.com>\n";
    struct Case {
        std::string sender, headers;
        bool owed;
    };
    const std::vector<Case> cases = {
        {"a@client.example", to + "Subject: hi\n\nbody", true},
        {"a@client.example", "To: x@example.com,\n info@example.com\n\n", true}, // folded
        {"a@client.example", "To: sales@example.com\nX-Original-To: sales@example.com\n", true},
        {"a@client.example", "To: sales@example.com\n", false},
        {"a@client.example", "To: myinfo@example.com\n", false},
        {"a@client.example", "Cc: info@example.com.evil\n", false},
        {"a@client.example", "Subject: x\n\nTo: info@example.com\n", false}, // body, not header
        {"", to, false},
        {"MAILER-DAEMON@client.example", to, false},
        {"owner-list@client.example", to, false},
        {"list-request@client.example", to, false},
        {"a@client.example", to + "Auto-Submitted: auto-generated\n", false},
        {"a@client.example", to + "auto-submitted: No\n", true},
        {"a@client.example", to + "Precedence: Bulk\n", false},
        {"a@client.example", to + "List-Id: <l.example>\n", false},
        {"a@client.example", to + "List-Unsubscribe: <mailto:u@l.example>\n", false},
        {"a b@client.example", to, false},
    };
    for (const Case &c : cases)
        EXPECT_EQ(autoresponder::replyOwed(autoresponder::parseHeaders(c.headers), c.sender,
                                           "info@example.com"),
                  c.owed)
            << c.sender << " / " << c.headers;
}
