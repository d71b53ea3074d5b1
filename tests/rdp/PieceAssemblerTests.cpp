// Reassembly of the pieces FreeRDP hands the add-in, and the losses it must report rather than
// pass on as a stream out of step.
#include "rdpclient/PieceAssembler.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using RdpClient::kPieceFirst;
using RdpClient::kPieceLast;
using RdpClient::kPieceResume;
using RdpClient::kPieceSuspend;
using Result = RdpClient::PieceAssembler::Result;

class PieceAssemblerTest : public testing::Test
{
protected:
    Result Add(const std::string& piece, uint32_t total, uint32_t flags)
    {
        return assembler.Add(reinterpret_cast<const uint8_t*>(piece.data()), piece.size(), total, flags);
    }
    std::string Message() const
    {
        return std::string(assembler.Message().begin(), assembler.Message().end());
    }

    RdpClient::PieceAssembler assembler{64};
};

TEST_F(PieceAssemblerTest, JoinsPiecesInOrderAndIgnoresSuspendNotices)
{
    EXPECT_EQ(Add("", 0, kPieceSuspend), Result::Idle);
    EXPECT_EQ(Add("ab", 7, kPieceFirst), Result::Partial);
    EXPECT_EQ(Add("", 0, kPieceResume), Result::Partial);
    EXPECT_EQ(Add("cde", 7, 0), Result::Partial);
    EXPECT_EQ(Add("fg", 7, kPieceLast), Result::Complete);
    EXPECT_EQ(Message(), "abcdefg");
    EXPECT_EQ(Add("h", 1, kPieceFirst | kPieceLast), Result::Complete);
    EXPECT_EQ(Message(), "h");
}

struct Loss
{
    const char* name;
    std::vector<std::tuple<std::string, uint32_t, uint32_t>> pieces; // the last one reports the loss
};

class PieceLoss : public PieceAssemblerTest, public testing::WithParamInterface<Loss>
{
};

TEST_P(PieceLoss, IsReportedAndTheNextMessageStartsClean)
{
    const auto& pieces = GetParam().pieces;
    for (size_t i = 0; i + 1 < pieces.size(); ++i)
        ASSERT_EQ(Add(std::get<0>(pieces[i]), std::get<1>(pieces[i]), std::get<2>(pieces[i])),
                  Result::Partial);
    const auto& [bytes, total, flags] = pieces.back();
    EXPECT_EQ(Add(bytes, total, flags), Result::Lost);
    EXPECT_EQ(Add("ok", 2, kPieceFirst | kPieceLast), Result::Complete);
    EXPECT_EQ(Message(), "ok");
}

const Loss kLosses[] = {
    {"MiddleWithoutFirst", {{"ab", 4, 0}}},
    {"LastWithoutFirst", {{"ab", 2, kPieceLast}}},
    {"FirstWhileAMessageIsOpen", {{"ab", 4, kPieceFirst}, {"cd", 2, kPieceFirst | kPieceLast}}},
    {"LastShortOfTheTotal", {{"ab", 5, kPieceFirst}, {"cd", 5, kPieceLast}}},
    {"MoreThanTheTotal", {{"ab", 3, kPieceFirst}, {"cd", 3, 0}}},
    {"TotalChangedMidway", {{"ab", 4, kPieceFirst}, {"cd", 5, kPieceLast}}},
    {"TotalPastTheLimit", {{"ab", 65, kPieceFirst}}},
};
INSTANTIATE_TEST_SUITE_P(PieceAssembler, PieceLoss, testing::ValuesIn(kLosses),
                         [](const testing::TestParamInfo<Loss>& info)
                         { return std::string(info.param.name); });

} // namespace
