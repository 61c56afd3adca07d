// What NMEA 0183 sentences say: time, position, fix, satellites.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace navoxctl {

// One sentence, as views into the line that it was parsed from.
struct Sentence {
    std::string_view talker;              // "GP"
    std::string_view kind;                // "GGA"
    std::vector<std::string_view> fields; // behind the address

    // Empty when there are not so many.
    std::string_view Field(std::size_t index) const { return index < fields.size() ? fields[index] : ""; }
};

// "$ttkkk,...*hh", with or without a line end. Nothing for anything else, or when the checksum is not right.
std::optional<Sentence> ParseSentence(std::string_view line);

struct Position {
    double latitude = 0;  // degrees, north positive
    double longitude = 0; // degrees, east positive
};

// What a receiver said of one moment.
struct Fix {
    std::string time; // UTC, "12:35:19.00"; empty: unknown, as all that is absent below
    std::string date; // "2024-01-17"
    std::optional<Position> position;
    std::optional<double> altitude; // metres above mean sea level
    std::optional<double> hdop;
    std::optional<double> speed;  // knots
    std::optional<double> course; // degrees from true north
    int quality = 0;              // GGA's: 0 no fix, 1 GPS, 2 differential, ...
    std::optional<int> used;      // satellites
    std::optional<int> in_view;
};

const char* QualityName(int quality);

// Puts the sentences of one moment together. The date and the satellites in view last until they are said
// anew.
class FixAssembler {
  public:
    // The moment before, when this sentence begins another one. A line that is no sentence is ignored.
    std::optional<Fix> Take(std::string_view line);
    // The moment that has begun.
    std::optional<Fix> Finish();

  private:
    // Which sentences that carry a time have been seen in this moment.
    enum Timed : unsigned { kGga = 1, kRmc = 2, kGll = 4, kZda = 8 };

    static std::optional<Timed> TimedKind(const Sentence& sentence);
    static std::string_view TimeField(const Sentence& sentence, Timed kind);
    bool BeginsAnother(const Sentence& sentence, Timed kind) const;
    void Note(const Sentence& sentence);

    Fix fix_;
    unsigned seen_ = 0;
    std::string time_text_;
    std::string date_;
    std::map<std::string, int, std::less<>> in_view_; // by talker
};

// Cuts a stream into lines.
class LineSplitter {
  public:
    static constexpr std::size_t kLongest = 512; // a longer line is passed over

    // Calls `on_line` for each line that ends in `bytes`, without its line end.
    void Take(std::string_view bytes, const std::function<void(std::string_view line)>& on_line);

  private:
    std::string line_;
    bool too_long_ = false;
};

} // namespace navoxctl
