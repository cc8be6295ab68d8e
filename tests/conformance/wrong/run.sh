#!/usr/bin/env bash
# Each fault below is found by the test beside it, and each test of the kit finds one. usage: run.sh CONFORMANCE_WRONG
set -u
kit=$1 folder=$(mktemp -d) failed=0
trap 'rm -rf "$folder"' EXIT
export TARVO_PATIENCE=2
while IFS=: read -r fault test; do
  (
    TARVO_WRONG=$fault timeout 60 "$kit" --gtest_filter="$test" >"$folder/$fault" 2>&1
    echo "ended with $?" >>"$folder/$fault"
  ) 2>/dev/null &
done <<'FAULTS'
battery in percent:Battery.IsAbsentOrKeepsWithinItsBounds
clock goes back:SinceBoot.GoesOnAsFastAsTimeInSmallStepsAndNeverBack
clock of seconds:SinceBoot.GoesOnAsFastAsTimeInSmallStepsAndNeverBack
clock of the calendar:SinceBoot.IsOneClockForAllThreadsAndProgramsAndNotTheCalendar
clock of the process:SinceBoot.IsOneClockForAllThreadsAndProgramsAndNotTheCalendar
clock stands:SinceBoot.GoesOnAsFastAsTimeInSmallStepsAndNeverBack
clock twice as fast:SinceBoot.GoesOnAsFastAsTimeInSmallStepsAndNeverBack
file by its link:Program.HasItsFileWithoutLinksFromAnywhere
files cut are lost:Files.TellOfThoseThatWereRemovedReplacedOrCut
files cut unnoticed:Files.TellOfThoseThatWereRemovedReplacedOrCut
files inherited:Descriptors.AreClosedAfterUseAndNotInherited
files lost without descriptor:Files.AreNotLostForWantOfADescriptor
files moved unnoticed:Files.AreMissedWithinASecondWhenTheyWereMovedAside
files never looked for again:Files.AreWatchedOnceTheyHaveCome
files opened:Files.KeepTheLocksThatSqliteHasOnThem
files removed unnoticed:Files.TellOfThoseThatWereRemovedReplacedOrCut
files without length:Files.AreWatchedOnceTheyHaveCome
first thread before the fork:Threads.KnowTheFirstOfTheirProcessAlsoAfterAFork
interface always up:Routes.OfAnInterfaceAreThereWhileItIsUp
lock for writers:FileLock.KeepsOtherOpeningsOutUntilItsOwnIsClosedEverywhere
lock of the process:FileLock.KeepsOtherOpeningsOutUntilItsOwnIsClosedEverywhere
lock that is shared:FileLock.KeepsOtherOpeningsOutUntilItsOwnIsClosedEverywhere
lock that stays:FileLock.EndsWithTheLastProcessThatHasIt
lock that waits:FileLock.KeepsOtherOpeningsOutUntilItsOwnIsClosedEverywhere
name too long:Threads.TakeTheBeginningOfAnyNameAndKeepThoseOfOthers
name with folders:Program.HasTheNameUnderWhichItWasStarted
random of a fork:Random.RepeatsNothingInThreadsNorChildren
random too short:Random.FillsEachByteAndNoOther
release of two lines:Release.IsOneLineWithAName
release without name:Release.IsOneLineWithAName
route by sending:Routes.AreLookedUpWithoutSending
route to all:Routes.LeadWhereDatagramsWouldGo
route to others alone:Routes.LeadWhereDatagramsWouldGo
socket left open:Descriptors.AreClosedAfterUseAndNotInherited
temporary file for all:TemporaryFile.IsNewAndForThisUserAlone
temporary file inherited:TemporaryFile.IsNewAndForThisUserAlone
temporary file left:TemporaryFile.IsNotMadeWhereItCannotBe
temporary file without name:TemporaryFile.IsNewAndForThisUserAlone
thread number of the process:Threads.HaveEachANumberOfTheirOwn
variable never missing:Program.BelievesTheEnvironmentOfAnOrdinaryUser
wake-up by one thread:WakeUp.LosesNoSignalOfAnyThread
wake-up forgets one:WakeUp.IsReadableFromASignalUntilItForgetsThemAll
wake-up from the start:WakeUp.IsReadableFromASignalUntilItForgetsThemAll
wake-up full:WakeUp.IsReadableFromASignalUntilItForgetsThemAll
wake-up in one process:WakeUp.WorksInAForkedChildWhichNeedNotUseIt
wake-up inherited:Descriptors.AreClosedAfterUseAndNotInherited
wake-up waits:WakeUp.IsReadableFromASignalUntilItForgetsThemAll
wake-up without descriptor:WakeUp.WithoutADescriptorHasNoneUntilThereIsOne
FAULTS
wait
for told in "$folder"/*; do
  # A test that fails, or one that waits for ever and is ended by its alarm.
  grep -qE '^\[  FAILED  \] |^ended with 142$' "$told" && continue
  echo "nothing was found wrong with: ${told##*/}"
  sed 's/^/  /' "$told"
  failed=1
done
suite=
while read -r name; do
  case $name in *.) suite=$name && continue ;; esac
  grep -qE "^\[ RUN      \] $suite$name" "$folder"/* || { echo "no fault for: $suite$name" && failed=1; }
done < <("$kit" --gtest_list_tests)
"$kit" --gtest_brief=1 || failed=1
exit $failed
