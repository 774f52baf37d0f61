"""The steps of script/bundle, in the order in which main.py calls them:

options         the command line
inputs          the vendor's jars and directories, checked before anything is written
jdk             the JDK, its tools and its modules; locales, what it has of languages
launcher        the executable, built where none is given
platforms       what an executable and a library were made for: Mach-O and ELF
sample          the sample service, where no jar is given
layout          the bundle without its runtime; property_lists writes its property lists
modules         the modules that the jars refer to
trial           a copy of the bundle in which the service is run; service is one run of it
training        the run that shows which modules and classes the service loads
runtime         the linked runtime
archive         the CDS archive of the loaded classes, and whether the service uses it
packing         the bundle at its destination, and the tarball

commands, processes, jars and errors are used by them. A step takes values, and returns values."""
