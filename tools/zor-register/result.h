#pragma once
// A command's result, described once: the lines it prints are the summary rows of its
// inspection report, and the JSON report is built beside them from the same values, so
// that the three never tell different stories.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/zor-register/report.h"

namespace zortool {

class ResultDescription {
public:
  // A printed line ("label     text"; a text of several lines continues under the
  // first) and a row of the report.
  void Add(const std::string& label, const std::string& text) { lines.emplace_back(label, text); }
  const std::vector<std::pair<std::string, std::string>>& Lines() const { return lines; }
  void Print() const;

  Json json;  // the JSON report

private:
  std::vector<std::pair<std::string, std::string>> lines;
};

// What every command's description holds: the two meshes, under their roles.
void DescribeMeshes(ResultDescription& d, const char* movingRole, const std::string& movingPath,
                    const LoadedMesh& moving, const char* fixedRole, const std::string& fixedPath,
                    const LoadedMesh& fixed);

// What a user waits for beside the stages: reading the files, and the whole call after
// them (seconds).
void DescribeWall(ResultDescription& d, double read, const PairResult& result);

// The verdict: the overlap, whether the result is doubtful and why.
void DescribeVerdict(ResultDescription& d, const Verdict& verdict, double toFile);

// The output file, the deviation map and the report, when written.
void DescribeOutputs(ResultDescription& d, const std::string& output, const DeviationOptions& deviation,
                     const std::optional<Deviation>& measured, double scale);

ResultDescription DescribeAlign(const std::string& movingPath, const LoadedMesh& moving, const std::string& fixedPath,
                                const LoadedMesh& fixed, const PairOptions& options, const PairResult& result,
                                double toFile);

ResultDescription DescribeIcp(const std::string& movingPath, const LoadedMesh& moving, const std::string& fixedPath,
                              const LoadedMesh& fixed, const IcpOptions& options, const IcpRun& run, double toFile);

ResultDescription DescribeMorph(const std::string& movingPath, const LoadedMesh& moving, const std::string& targetPath,
                                const LoadedMesh& target, const MorphOptions& options, const MorphRun& run,
                                double toFile);

}  // namespace zortool
