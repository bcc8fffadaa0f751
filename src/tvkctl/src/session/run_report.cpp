#include "tvkctl/src/session/run_report.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "common/text/text.h"
#include "tvkctl/src/terminal/hex_dump.h"
#include "tvkctl/src/terminal/numbers.h"
#include "tvkctl/src/terminal/progress_line.h"

namespace tarvik::tvkctl {

namespace {

class text_run_report final : public run_report {
public:
    text_run_report(console& io, bool is_verbose) : m_io(io), m_isVerbose(is_verbose), m_dump(io.out()) {}

    void begin(const std::string& step) override
    {
        m_step = step;
        m_order.reset();
        m_io.out() << m_io.styled(style::bold, step) << std::endl;
    }

    void sending(byte_view data) override { m_dump.add(data); }

    void receiving(const receive_order& order) override
    {
        m_dump.finish();
        m_order = order;
        const bool is_dumped_here = order.file.empty() && m_io.out_is_terminal();
        if (m_io.err_is_terminal() && !is_dumped_here)
            m_progress.emplace(m_io.err(), order.size);
    }

    void received(byte_view piece) override
    {
        if (m_order->file.empty())
            m_dump.add(piece);
        if (m_progress)
            m_progress->add(piece.size);
    }

    void end(const step_result& result) override
    {
        m_progress.reset();
        m_dump.finish();
        if (m_order && !m_order->file.empty())
            m_io.out() << count_of(result.moved, "byte") << " in " << m_order->file << '\n';
        m_io.out().flush();
        if (m_isVerbose)
            m_io.note(m_step + ": " + (result.answer.empty() ? "" : result.answer + ", ") + time_of(result));
    }

    void succeeded() override {}
    void failed(const std::string&) override
    {
        m_progress.reset();
        m_dump.finish();
    }

private:
    static std::string time_of(const step_result& result)
    {
        const double seconds = std::chrono::duration<double>(result.time).count();
        std::string text = seconds_text(result.time);
        if (result.moved != 0 && seconds > 0)
            text += ", " +
                    size_text(static_cast<std::uint64_t>(static_cast<double>(result.moved) / seconds)) + "/s";
        return text;
    }

    console& m_io;
    bool m_isVerbose;
    hex_dump m_dump;
    std::string m_step;
    std::optional<receive_order> m_order; ///< of this step, if it receives
    std::optional<progress_line> m_progress;
};

void append_hex(std::string& text, byte_view data)
{
    for (const unsigned char byte : data)
        text += hexadecimal(byte, 2);
}

class json_run_report final : public run_report {
public:
    json_run_report(console& io, const std::string& udi) : m_io(io)
    {
        m_document["udi"] = udi;
        m_document["steps"] = json::array();
    }

    void begin(const std::string& step) override
    {
        m_step = {{"step", step}};
        m_data.clear();
        m_order.reset();
        m_isInStep = true;
    }

    void sending(byte_view data) override
    {
        append_hex(m_data, data);
        m_step["sent"] = m_data;
    }

    void receiving(const receive_order& order) override
    {
        m_data.clear();
        m_order = order;
        m_count = 0;
    }

    void received(byte_view piece) override
    {
        m_count += piece.size;
        if (m_order->file.empty())
            append_hex(m_data, piece);
    }

    void end(const step_result& result) override
    {
        close_step();
        m_step["answer"] = result.answer.empty() ? json() : json(result.answer);
        m_step["seconds"] = std::chrono::duration<double>(result.time).count();
        m_document["steps"].push_back(m_step);
    }

    void succeeded() override { write(nullptr); }
    void failed(const std::string& reason) override
    {
        if (m_isInStep) {
            close_step();
            m_document["steps"].push_back(m_step);
        }
        write(reason);
    }

private:
    void close_step()
    {
        m_isInStep = false;
        if (!m_order)
            return;
        m_step["count"] = m_count;
        if (m_order->file.empty())
            m_step["received"] = m_data;
        else
            m_step["file"] = m_order->file;
    }

    void write(const json& error)
    {
        m_document["error"] = error;
        m_io.write(m_document);
    }

    console& m_io;
    json m_document;
    json m_step;
    std::string m_data; ///< of this step, in hexadecimal
    std::uint64_t m_count = 0;
    std::optional<receive_order> m_order;
    bool m_isInStep = false;
};

} // namespace

std::unique_ptr<run_report> text_report(console& io, bool is_verbose)
{
    return std::make_unique<text_run_report>(io, is_verbose);
}

std::unique_ptr<run_report> json_report(console& io, const std::string& udi)
{
    return std::make_unique<json_run_report>(io, udi);
}

} // namespace tarvik::tvkctl
