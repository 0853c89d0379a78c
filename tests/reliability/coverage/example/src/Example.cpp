// What the check of the check measures: of everything that the comparison tells apart, one.
namespace {

int NeverCalled(int value) {
    return value + 1;
}

int OneWay(int value) {
    if (value > 0) return 1;
    return 0;
}

int BothWays(int value) {
    if (value == 1) return 1;
    return 2;
}

int NeverInside(int value) {
    if (value == 3) {
        return 1;
    }
    return 0;
}

}  // namespace

int main(int count, char**) {
    if (count > 5) return NeverCalled(count);
    const int sum = OneWay(count) + BothWays(1) + BothWays(2) + NeverInside(count);
    return sum - 4;
}
