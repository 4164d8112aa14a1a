#!/usr/bin/env bash
echo "make fuzz: not available yet"
