#include <Prelude.hpp>

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>

#include <iostream>
#include <ostream>

namespace log_test {

using namespace foundation::log;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using vfs_test::RecordingListener;
using Record = vfs_test::LogRecord;

void writeEveryCategory(diagnostic_logger& logger)
{
    for (unsigned bit = 1; bit <= category_function_exit; bit <<= 1)
        logger.write(bit, category_name(bit));
}

// Each listener gets the records of its own logger that carry one of its categories; the logger is
// enabled for the union of its live listeners' masks, and only for that.
TEST(DiagnosticListener, ReceivesItsCategoriesOfItsLoggerWhileItLives)
{
    diagnostic_logger logger("test.filter");
    diagnostic_logger other("test.filter.other");
    RecordingListener onOther(other, category_arguments);
    auto goneCalls = std::make_shared<std::atomic<int>>(0);
    {
        RecordingListener kept(logger, category_arguments | category_function_exit);
        {
            diagnostic_listener leaver(logger, category_results | category_information,
                                       [goneCalls](unsigned, int, const std::string&) { ++*goneCalls; });
            EXPECT_TRUE(logger.enabled(category_information));
            EXPECT_FALSE(logger.enabled(category_error | category_exception | category_function_entry));
            EXPECT_FALSE(other.enabled(category_results));

            writeEveryCategory(logger);
            // A record of several categories reaches a listener that has one of them.
            logger.write(category_error | category_results, "mixed");
            EXPECT_EQ(goneCalls->load(), 3);
            EXPECT_THAT(kept.take(), ElementsAre(Record{category_arguments, 0, "arguments"},
                                                 Record{category_function_exit, 0, "exit"}));
        }
        EXPECT_FALSE(logger.enabled(category_information | category_results));
        EXPECT_TRUE(logger.enabled(category_arguments)) << "still wanted by the remaining listener";
        writeEveryCategory(logger);
        EXPECT_EQ(goneCalls->load(), 3) << "a destroyed listener receives nothing";
        EXPECT_EQ(kept.take().size(), 2u);
    }
    EXPECT_FALSE(logger.enabled(category_all));
    EXPECT_THAT(onOther.take(), IsEmpty());
}

TEST(DiagnosticListener, StreamListenerWritesOneFormattedLinePerRecord)
{
    diagnostic_logger logger("test.stream");
    std::ostringstream out;
    {
        diagnostic_listener listener(logger, category_all, out);
        trace_scope outer(logger, "outer");
        logger.write(category_arguments, "path=/tmp");
        trace_scope inner(logger, "inner");
        logger.write(category_results, "true");
    }
    EXPECT_EQ(out.str(), "entry outer\n"
                         "arguments   path=/tmp\n"
                         "entry   inner\n"
                         "results     true\n"
                         "exit   inner\n"
                         "exit outer\n");
}

TEST(DiagnosticListener, MayOutliveItsLogger)
{
    auto logger = std::make_unique<diagnostic_logger>("test.outlive");
    RecordingListener recorder(*logger, category_all);
    logger->write(category_information, "last words");
    logger.reset();
    EXPECT_THAT(recorder.take(), ElementsAre(Record{category_information, 0, "last words"}));
}

// Other Boost.Log sinks see the records with the documented attributes, and only for the
// categories some diagnostic listener wants.
TEST(DiagnosticLogger, RecordsCarryChannelSeverityIndentAndMessage)
{
    namespace bl = boost::log;
    struct Seen {
        std::string channel;
        unsigned severity;
        int indent;
        std::string message;
    };
    class CaptureBackend : public bl::sinks::basic_sink_backend<bl::sinks::synchronized_feeding> {
    public:
        std::vector<Seen> seen;
        void consume(const bl::record_view& record)
        {
            const auto& values = record.attribute_values();
            seen.push_back({bl::extract_or_default<std::string>("Channel", values, std::string("?")),
                            bl::extract_or_default<unsigned>("Severity", values, 0u),
                            bl::extract_or_default<int>("Indent", values, -1),
                            bl::extract_or_default<std::string>("Message", values, std::string("?"))});
        }
    };
    auto backend = boost::make_shared<CaptureBackend>();
    auto sink = boost::make_shared<bl::sinks::synchronous_sink<CaptureBackend>>(backend);
    sink->set_filter(bl::expressions::attr<std::string>("Channel") == "test.attributes");
    bl::core::get()->add_sink(sink);

    diagnostic_logger logger("test.attributes");
    {
        diagnostic_listener wantsResults(logger, category_results, [](unsigned, int, const std::string&) {});
        trace_scope scope(logger, "int answer()");
        logger.write(category_results, "42");
        logger.write(category_arguments, "nobody wants this");
    }
    bl::core::get()->remove_sink(sink);

    ASSERT_EQ(backend->seen.size(), 1u);
    EXPECT_EQ(backend->seen[0].channel, "test.attributes");
    EXPECT_EQ(backend->seen[0].severity, category_results);
    EXPECT_EQ(backend->seen[0].indent, 1);
    EXPECT_EQ(backend->seen[0].message, "42");
}

TEST(TraceScope, IndentNestsPerLoggerAndPerThread)
{
    diagnostic_logger logger("test.indent");
    diagnostic_logger other("test.indent.other");
    RecordingListener recorder(logger, category_all);

    EXPECT_EQ(logger.indent(), 0);
    {
        trace_scope outer(logger, "outer");
        logger.write(category_information, "a");
        {
            trace_scope inner(logger, "inner");
            logger.write(category_information, "b");
            EXPECT_EQ(logger.indent(), 2);
            EXPECT_EQ(other.indent(), 0);

            int seenByThread = -1;
            std::thread([&] {
                seenByThread = logger.indent();
                trace_scope scope(logger, "thread");
                logger.write(category_information, "c");
            }).join();
            EXPECT_EQ(seenByThread, 0);
            EXPECT_EQ(logger.indent(), 2) << "another thread's scopes leave ours alone";
        }
        {
            trace_scope onOther(other, "other");
            EXPECT_EQ(logger.indent(), 1);
            EXPECT_EQ(other.indent(), 1);
        }
    }
    EXPECT_EQ(logger.indent(), 0);
    EXPECT_THAT(recorder.take(), ElementsAre(Record{category_function_entry, 0, "outer"},
                                             Record{category_information, 1, "a"},
                                             Record{category_function_entry, 1, "inner"},
                                             Record{category_information, 2, "b"},
                                             Record{category_function_entry, 0, "thread"},
                                             Record{category_information, 1, "c"},
                                             Record{category_function_exit, 0, "thread"},
                                             Record{category_function_exit, 1, "inner"},
                                             Record{category_function_exit, 0, "outer"}));
}

TEST(TraceScope, IndentIsKeptWhileNobodyListens)
{
    diagnostic_logger logger("test.indent.silent");
    trace_scope outer(logger, "outer");
    {
        trace_scope inner(logger, "inner");
    }
    RecordingListener recorder(logger, category_all);
    logger.write(category_information, "inside outer");
    EXPECT_THAT(recorder.take(), ElementsAre(Record{category_information, 1, "inside outer"}));
}

struct TracedOnUnwind {
    diagnostic_logger& logger;
    ~TracedOnUnwind()
    {
        // Runs while an exception is in flight but leaves normally.
        trace_scope scope(logger, "cleanup");
    }
};

TEST(TraceScope, ExitIsMarkedOnlyWhenLeftByAnException)
{
    diagnostic_logger logger("test.throw");
    RecordingListener recorder(logger, category_function_exit);

    try {
        trace_scope scope(logger, "void fails()");
        TracedOnUnwind cleanup{logger};
        throw std::runtime_error("boom");
    } catch (const std::runtime_error&) {
        trace_scope inHandler(logger, "handler");
    }
    EXPECT_THAT(recorder.take(), ElementsAre(Record{category_function_exit, 1, "cleanup"},
                                             Record{category_function_exit, 0, "void fails() [throw]"},
                                             Record{category_function_exit, 0, "handler"}));
    EXPECT_EQ(logger.indent(), 0);
}

TEST(TraceScope, WorksInThreadLocalDestructorsAtThreadExit)
{
    diagnostic_logger logger("test.thread_exit");
    RecordingListener recorder(logger, category_all);

    std::thread([&logger] {
        // Made before the thread's first trace scope, so destroyed after the indent bookkeeping.
        thread_local struct LateWriter {
            diagnostic_logger* logger = nullptr;
            ~LateWriter()
            {
                if (!logger)
                    return;
                trace_scope scope(*logger, "late");
                logger->write(category_information, "bye");
            }
        } writer;
        writer.logger = &logger;
        trace_scope first(logger, "first");
    }).join();

    const auto records = recorder.take();
    ASSERT_EQ(records.size(), 5u);
    EXPECT_EQ(records[0], (Record{category_function_entry, 0, "first"}));
    EXPECT_EQ(records[1], (Record{category_function_exit, 0, "first"}));
    EXPECT_EQ(records[2].text, "late");
    EXPECT_EQ(records[3].text, "bye");
    EXPECT_EQ(records[4].text, "late");
}

TEST(DiagnosticLoggerDeathTest, WritesDuringProcessShutdown)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            static diagnostic_logger logger("test.shutdown");
            static diagnostic_listener toStderr(logger, category_all, std::cerr);
            // Destroyed first at exit, after the main thread's thread-local state is gone.
            static struct LateWriter {
                ~LateWriter()
                {
                    trace_scope scope(logger, "late_writer");
                    logger.write(category_information, "written during exit");
                }
            } writer;
            trace_scope scope(logger, "main");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "entry late_writer(.|\n)*written during exit(.|\n)*exit late_writer");
}

// Sends what the process writes to stdout into a temporary file while alive.
class StdoutCapture {
public:
    StdoutCapture() : m_file(std::tmpfile())
    {
        std::fflush(stdout);
        m_saved = ::dup(STDOUT_FILENO);
        ::dup2(::fileno(m_file), STDOUT_FILENO);
    }
    ~StdoutCapture()
    {
        restore();
        std::fclose(m_file);
    }
    std::string finish()
    {
        restore();
        std::string text;
        std::rewind(m_file);
        for (int c; (c = std::fgetc(m_file)) != EOF;)
            text += static_cast<char>(c);
        return text;
    }

private:
    void restore()
    {
        if (m_saved < 0)
            return;
        std::fflush(stdout);
        ::dup2(m_saved, STDOUT_FILENO);
        ::close(m_saved);
        m_saved = -1;
    }
    std::FILE* m_file;
    int m_saved = -1;
};

// Writers trace continuously while listeners of varying masks come and go. A listener must see
// well-formed records only while it lives, and never after its destructor returned.
TEST(DiagnosticLogger, ConcurrentWritersWhileListenersComeAndGo)
{
    // Boost.Log prints records that find no sink in the core to stdout; none of ours may get there,
    // not even one that raced with the removal of the last listener.
    StdoutCapture capture;
    diagnostic_logger logger("test.concurrent");
    std::atomic<bool> stop{false};
    std::atomic<int> badIndent{0};
    const auto writer = [&] {
        while (!stop.load()) {
            trace_scope scope(logger, "work");
            if (logger.indent() != 1)
                ++badIndent;
            if (logger.enabled(category_information))
                logger.write(category_information, "tick");
        }
    };

    struct Probe {
        std::atomic<bool> closed{false};
        std::atomic<int> records{0};
        std::atomic<int> afterClose{0};
        std::atomic<int> malformed{0};
    };
    const unsigned masks[] = {category_function_entry | category_function_exit, category_information, category_all};
    constexpr int rounds = 200;
    std::vector<std::shared_ptr<Probe>> probes;
    const auto listenersComeAndGo = [&] {
        for (int round = 0; round < rounds; ++round) {
            auto probe = std::make_shared<Probe>();
            const unsigned mask = masks[round % 3];
            {
                const auto check = [probe, mask](unsigned severity, int indent, const std::string& text) {
                    if (probe->closed.load())
                        ++probe->afterClose;
                    const bool traced = severity == category_function_entry || severity == category_function_exit;
                    const bool wellFormed = (severity & mask) != 0 &&
                                            ((severity == category_information && indent == 1 && text == "tick") ||
                                             (traced && indent == 0 && text == "work"));
                    if (!wellFormed)
                        ++probe->malformed;
                    ++probe->records;
                };
                diagnostic_listener listener(logger, mask, check);
                const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
                while (probe->records.load() < 1 && std::chrono::steady_clock::now() < deadline)
                    std::this_thread::yield();
            }
            probe->closed = true;
            probes.push_back(probe);
        }
        stop = true;
    };
    vfs_test::runTogether({writer, writer, writer, listenersComeAndGo});
    EXPECT_EQ(capture.finish(), "");
    for (std::size_t round = 0; round < probes.size(); ++round) {
        EXPECT_GT(probes[round]->records.load(), 0) << "round " << round;
        EXPECT_EQ(probes[round]->afterClose.load(), 0) << "round " << round;
        EXPECT_EQ(probes[round]->malformed.load(), 0) << "round " << round;
    }
    EXPECT_EQ(badIndent.load(), 0);
    EXPECT_FALSE(logger.enabled(category_all));
}

} // namespace log_test
