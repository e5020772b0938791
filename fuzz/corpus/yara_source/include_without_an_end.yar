include "..
rule a { conditionruonru: 