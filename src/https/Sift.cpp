#include "https/Sift.h"

namespace corv::https {
namespace {

// Puts the parts at the places from begin up to end where they belong.
void siftHalves(int begin, int end, const std::function<Verdict(const QList<int> &)> &comesUp, Sifted *sifted)
{
    QList<int> places;
    for (int place = begin; place < end; ++place)
        places.append(place);
    const Verdict verdict = comesUp(sifted->good + places);
    if (verdict == Verdict::Up) {
        sifted->good += places;
        return;
    }
    if (verdict == Verdict::NoTime) {
        sifted->undecided += places;
        return;
    }
    if (places.size() == 1) {
        sifted->bad += places;
        return;
    }
    const int middle = begin + (end - begin) / 2;
    siftHalves(begin, middle, comesUp, sifted);
    siftHalves(middle, end, comesUp, sifted);
}

} // namespace

Sifted sift(int count, const std::function<Verdict(const QList<int> &)> &comesUp)
{
    QList<int> all;
    for (int place = 0; place < count; ++place)
        all.append(place);

    Sifted sifted;
    Verdict verdict = comesUp(all);
    if (verdict == Verdict::Up) {
        sifted.good = all;
        return sifted;
    }
    if (verdict == Verdict::Down && count > 0)
        verdict = comesUp({});
    if (verdict != Verdict::Up) {
        sifted.undecided = all;
        sifted.verdict = verdict;
        return sifted;
    }
    if (count == 1) {
        sifted.bad = all;
        return sifted;
    }
    siftHalves(0, count / 2, comesUp, &sifted);
    siftHalves(count / 2, count, comesUp, &sifted);
    return sifted;
}

} // namespace corv::https
