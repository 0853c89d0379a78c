// Stands for the sources that are not built here.
int OnAnotherSystem() {
    return 0;
}
