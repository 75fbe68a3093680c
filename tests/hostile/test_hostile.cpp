// SPDX-License-Identifier: MIT
// Programs that misbehave, each against the real server beside a program that means well. With PFB_HOSTILE_FIGURES set
// to a file's name, each case adds a line to it: the row of docs/robustness.md, with what was measured.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "../support/process.h"
#include "misbehaviour.h"

namespace {

const std::vector<Misbehaviour> &all_rows()
{
    static const std::vector<Misbehaviour> rows = [] {
        std::vector<Misbehaviour> all;
        for (const auto part : {packet_rows, connection_rows, name_rows, memory_rows, flood_rows, lock_rows,
                                device_rows, system_rows, folder_rows, access_rows, end_rows}) {
            for (const Misbehaviour &row : part())
                all.push_back(row);
        }
        return all;
    }();
    return rows;
}

// Each column in its own cell; a | in a cell would end it.
std::string row_text(const Misbehaviour &row, const std::string &figures)
{
    return std::string("| ") + row.words + " | " + row.outcome + " | " + figures + " | " + row.name + " |";
}

// Several of these programs may write at the same time: a line leaves in one piece.
void write_figures(const Misbehaviour &row, size_t number, const std::string &figures)
{
    const char *path = getenv("PFB_HOSTILE_FIGURES");
    if (path == nullptr)
        return;
    const std::string line = std::to_string(number) + " " + row_text(row, figures) + "\n";
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    EXPECT_EQ(write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size())) << path;
    close(fd);
}

// The cells of a row of a table.
std::vector<std::string> cells_of(const std::string &line)
{
    std::vector<std::string> cells;
    size_t start = line.find("| ");
    while (start != std::string::npos) {
        const size_t end = line.find(" |", start + 2);
        if (end == std::string::npos)
            break;
        cells.push_back(line.substr(start + 2, end - start - 2));
        start = end + 1;
    }
    return cells;
}

// The rows between the document's markers, without the head.
std::vector<std::string> document_rows()
{
    const std::string text = file_text(from_build("PFB_TEST_PAGE"));
    const size_t begin = text.find("<!-- misbehaviours -->");
    const size_t end = text.find("<!-- end of misbehaviours -->");
    std::vector<std::string> rows;
    if (begin == std::string::npos || end == std::string::npos)
        return rows;
    for (const std::string &line : lines_of(text.substr(begin, end - begin))) {
        if (line.rfind("| ", 0) == 0)
            rows.push_back(line);
    }
    if (!rows.empty())
        rows.erase(rows.begin());
    return rows;
}

class Hostile : public testing::TestWithParam<size_t> {};

std::string row_name(const testing::TestParamInfo<size_t> &info)
{
    return all_rows()[info.param].name;
}

} // namespace

TEST_P(Hostile, Program)
{
    const Misbehaviour &row = all_rows()[GetParam()];
    Stage stage(row.stage);
    row.run(stage);
    if (row.stage.bystander)
        stage.expect_outcome(row.lines);
    if (!HasFailure())
        write_figures(row, GetParam(), stage.figures(row.unit));
}

INSTANTIATE_TEST_SUITE_P(A, Hostile, testing::Range(size_t{0}, all_rows().size()), row_name);

// The page promises what is tested, and nothing that is not.
TEST(HostilePage, HasTheRowsOfThisProgram)
{
    const std::vector<std::string> rows = document_rows();
    EXPECT_EQ(rows.size(), all_rows().size());
    for (size_t i = 0; i < std::min(rows.size(), all_rows().size()); i++) {
        const Misbehaviour &row = all_rows()[i];
        const std::vector<std::string> cells = cells_of(rows[i]);
        ASSERT_EQ(cells.size(), 4u) << rows[i];
        EXPECT_EQ(cells[0], row.words);
        EXPECT_EQ(cells[1], row.outcome) << row.words;
        EXPECT_NE(cells[2].find_first_of("0123456789"), std::string::npos) << "no figure: " << rows[i];
        EXPECT_EQ(cells[3], row.name);
    }
}
